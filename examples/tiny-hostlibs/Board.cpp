// The board: identity, model names, GPIO lines, log, condition flag.

#include "Capabilities.h"
#include "GPIO/GPIOManager.h"
#include "LogAppender.h"
#include "eepromXML.h"
#include "hwcommon/DBusHardwareProxy.h"
#include "hwcommon/fileUtil.h"
#include "hwtools/Condition.h"

#include <log4cplus/initializer.h>
#include <log4cplus/loggingmacros.h>
#include <log4cplus/syslogappender.h>

#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdint>
#include <fstream>
#include <sstream>
#include <system_error>

namespace fileUtil = hwcommon::fileUtil;

namespace {

// The number that is the whole text; 0, which means unknown, for any other text.
std::uint16_t numberIn(const std::string& text) {
    std::uint16_t number = 0;
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    return error == std::errc() && stop == end ? number : std::uint16_t{0};
}

}  // namespace

log4cplus::Logger LogAppender::getLogger() {
    // Never destroyed: the manager's destructor logs.
    static const auto* const logger = [] {
        new log4cplus::Initializer;  // NOLINT(cppcoreguidelines-owning-memory): for the same reason
        log4cplus::Logger::getRoot().addAppender(
            log4cplus::SharedAppenderPtr(new log4cplus::SysLogAppender("tinyboard")));
        return new log4cplus::Logger(log4cplus::Logger::getInstance("tinyboard"));
    }();
    return *logger;
}

// The identity is a file of lines NAME=NUMBER and serial=TEXT.
namespace hwcommon {

DBusHardwareProxy::DBusHardwareProxy(DBusHardwareObserver* /*observer*/) {}

std::string DBusHardwareProxy::getHardwareInfo() {
    std::string identity;
    fileUtil::getFileContent("/etc/tinyboard-identity", identity, std::ios_base::in);
    return identity;
}

}  // namespace hwcommon

bool eepromXML::AnalyseXML(const std::string& text) {
    *this = eepromXML();  // nothing of an earlier text stays
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        const std::string value = line.substr(line.find('=') + 1);
        if (line.rfind("model=", 0) == 0) modelType = static_cast<ModelType>(numberIn(value));
        if (line.rfind("family=", 0) == 0) productFamily = numberIn(value);
        if (line.rfind("revision=", 0) == 0) boardRevision = numberIn(value);
        if (line.rfind("serial=", 0) == 0) serialNumber = value;
    }
    if (!IsValid()) {
        LOG4CPLUS_ERROR(LogAppender::getLogger(),
                        "/etc/tinyboard-identity needs lines model=1.., family=1.., serial=TEXT");
    }
    return IsValid();
}

std::string eepromXML::GetSerialNumberString(bool /*grouped*/) { return serialNumber; }

std::string GetModelNameStringExternal(ModelType modelType) {
    return "Tiny " + std::to_string(static_cast<int>(modelType));
}

Capabilities& Capabilities::getInstance() {
    static Capabilities instance;  // nothing to destroy
    return instance;
}

// Read each time: the file may not exist yet at the first call.
int Capabilities::getProductFamily() {
    return eepromXML(hwcommon::DBusHardwareProxy(nullptr).getHardwareInfo()).GetProductFamily();
}

namespace GPIO {

namespace {

std::string lineFolder(unsigned pin) { return "/sys/class/gpio/gpio" + std::to_string(pin); }

int writeText(const std::string& path, const std::string& text) {
    std::ofstream file(path);
    file << text << std::flush;
    if (file) return 1;
    LOG4CPLUS_ERROR(LogAppender::getLogger(), "cannot write " << text << " to " << path);
    return 0;
}

}  // namespace

int GPIOManager::exportPin(unsigned pin) {
    if (fileUtil::exists(lineFolder(pin))) return 1;
    return writeText("/sys/class/gpio/export", std::to_string(pin));
}

int GPIOManager::setDirection(unsigned pin, Direction direction) {
    // "out" would start low; "high" and "low" keep the present level.
    const char* const word =
        static_cast<int>(direction) == 0 ? "in" : (getValue(pin) == 1 ? "high" : "low");
    return writeText(lineFolder(pin) + "/direction", word);
}

int GPIOManager::getValue(unsigned pin) {
    std::ifstream file(lineFolder(pin) + "/value");
    int level = -1;
    return file >> level ? level : -1;
}

int GPIOManager::setValue(unsigned pin, Value value) {
    return writeText(lineFolder(pin) + "/value", std::to_string(static_cast<int>(value)));
}

}  // namespace GPIO

namespace hwtools {

Condition::Condition(bool initially) : notified(initially) {}

int Condition::wait(unsigned milliseconds, bool reset) {
    std::unique_lock<std::mutex> lock(mutex);
    if (reset) notified = false;
    const auto limit = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
    return changed.wait_until(lock, limit, [this] { return notified; }) ? 0 : ETIMEDOUT;
}

void Condition::notify() {
    const std::lock_guard<std::mutex> lock(mutex);
    notified = true;
    changed.notify_all();
}

}  // namespace hwtools
