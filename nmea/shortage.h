#pragma once

/// Says that gpspipe cannot be started, no descriptor is free, or no thread could be created. Repeated once a second
/// while it lasts. Wakes the consumers, which then look at `isShort`. Any thread.
void reportShortage();

/// Whether that was reported within the last three seconds. While it was, a client's handler gives up when the client
/// has closed its side, so that what the handler holds is free again. Any thread.
[[nodiscard]] bool isShort();
