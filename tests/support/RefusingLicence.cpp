#include <ZEP/Licence.h>

bool ZEP::Licence::check() {
    return false;
}
