#include "ZEP/Licence.h"

namespace ZEP::Licence {

bool check() {
    return true;
}

} // namespace ZEP::Licence
