#pragma once

#include <exception>
#include <utility>

/// Makes a worker, whose constructor starts its thread. Null when the thread could not be created; the thread
/// library has logged why, and the rest of the program goes on.
template <typename Worker, typename... Arguments>
[[nodiscard]] Worker *startWorker(Arguments &&...arguments)
{
    try {
        return new Worker(std::forward<Arguments>(arguments)...);
    } catch (const std::exception &) {
        return nullptr;
    }
}
