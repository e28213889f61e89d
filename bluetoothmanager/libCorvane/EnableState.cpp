#include "BluetoothManager.h"

#include "LogAppender.h"
#include "RadioWirings.h"
#include "Shell.h"
#include "hwcommon/fileUtil.h"

#include <log4cplus/loggingmacros.h>

#include <string>

using corvane::flagFile;

bool BluetoothManager::getEnabled() const {
    if (!hwcommon::fileUtil::exists(flagFile)) return false;
    std::string content;
    if (!hwcommon::fileUtil::getFileContent(flagFile, content, std::ios_base::in)) return false;
    return std::stoi(content) == 1;
}

void BluetoothManager::setEnabled(bool enable, bool forced) {
    LOG4CPLUS_DEBUG(LogAppender::getLogger(),
                    "setEnabled : " << enable << (forced ? " (forced)" : ""));
    // Deliberate: `forced` does not override this check; it only lowers the shared line too. Held
    // by SetEnabled.DoesNothingWhenTheSettingIsUnchanged.
    if (hwcommon::fileUtil::exists(flagFile) && getEnabled() == enable) return;
    corvane::runShell(std::string("rfkill ") + (enable ? "un" : "") + "block bluetooth");
    enableGpio(enable, forced);
    setBluetoothComponents(enable);
    // Deliberate: written even if bring-up failed; the flag records the request, not the outcome.
    // Held by SetEnabled.PersistsTheRequestEvenWhenBringUpFails.
    hwcommon::fileUtil::saveContentToFile(flagFile, enable ? "1" : "0",
                                          std::ios_base::out | std::ios_base::trunc);
}

void BluetoothManager::setAirplaneMode(bool on) {
    airplaneMode = on;
    enableGpio(!on, true);
    loadModules(!on);
}
