#include "support/Lock.h"

namespace KAV {

void Lock::lock() { mutex.lock(); }

void Lock::unlock() { mutex.unlock(); }

Hold::Hold(Lock &lock) : held(lock) { held.lock(); }

Hold::~Hold() { held.unlock(); }

} // namespace KAV
