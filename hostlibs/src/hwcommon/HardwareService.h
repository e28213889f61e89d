#pragma once

namespace hwcommon {

/// Tells whether a call of the hardware service timed out within the last minute. Callers that can
/// do without an answer then should not ask: the next call would probably time out too.
[[gnu::visibility("hidden")]] bool hardwareServiceIsSilent();

}  // namespace hwcommon
