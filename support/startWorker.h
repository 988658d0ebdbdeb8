#pragma once

#include "support/Logger.h"

#include <exception>
#include <new>
#include <utility>

namespace KAV {

/// Makes a worker, whose constructor starts its thread. Null, after an ERROR line, when the thread could not be
/// created or memory is out; the rest of the program goes on. Who deletes the worker: see KAV::Thread.
template <typename Worker, typename... Arguments>
[[nodiscard]] Worker *startWorker(Arguments &&...arguments)
{
    try {
        return new Worker(std::forward<Arguments>(arguments)...);
    } catch (const std::bad_alloc &) {
        KAV_LOG(ERROR, "out of memory: no thread was created\n");
    } catch (const std::exception &error) {
        KAV_LOG(ERROR, "%s\n", error.what());
    }
    return nullptr;
}

} // namespace KAV
