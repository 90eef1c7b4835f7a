#include "ZEP/Lock.h"

namespace ZEP {

void Lock::lock() {
    pthread_mutex_lock(&mutex);
}

void Lock::unlock() {
    pthread_mutex_unlock(&mutex);
}

} // namespace ZEP
