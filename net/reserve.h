#pragma once

// What a new client has to leave free: gpspipe is started again whenever it ends, the uplink connects again.
// Thread: the server's.

/// True when `accept` would get a descriptor and four would be left: two for the pipe of the next gpspipe, two for the
/// uplink's socket and resolver. Otherwise false, with `errno` set.
[[nodiscard]] bool isDescriptorFree();

/// True when a handler's thread could be created and two tasks would be left, for the next gpspipe and its shell
/// (RLIMIT_NPROC in getrlimit(2), TasksMax= in systemd.resource-control(5)). Otherwise false, after an ERROR line.
[[nodiscard]] bool areTasksFree();
