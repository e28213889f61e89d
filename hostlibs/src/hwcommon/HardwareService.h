#pragma once

namespace hwcommon {

/// Whether the hardware service has let a question run out of time within the last minute. Who can
/// do without an answer then does not ask: the next one would wait as long again.
[[gnu::visibility("hidden")]] bool hardwareServiceIsSilent();

}  // namespace hwcommon
