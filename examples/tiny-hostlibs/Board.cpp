// What the board is and has: identity, model names, lines, log, a flag to wait for.

#include "Capabilities.h"
#include "GPIO/GPIOManager.h"
#include "LogAppender.h"
#include "eepromXML.h"
#include "hwcommon/DBusHardwareProxy.h"
#include "hwcommon/fileUtil.h"
#include "hwtools/Condition.h"

#include <log4cplus/consoleappender.h>
#include <log4cplus/initializer.h>
#include <log4cplus/layout.h>
#include <log4cplus/loggingmacros.h>

#include <chrono>
#include <fstream>
#include <memory>
#include <sstream>

using hwcommon::fileUtil;

const log4cplus::Logger& LogAppender::getLogger() {
    // Never destroyed: the manager's destructor still logs.
    static const auto* const logger = [] {
        new log4cplus::Initializer;  // NOLINT(cppcoreguidelines-owning-memory): for the same reason
        log4cplus::SharedAppenderPtr console(new log4cplus::ConsoleAppender(true, true));
        console->setLayout(
            std::make_unique<log4cplus::PatternLayout>("%D{%H:%M:%S.%q} %p %b:%L %M: %m%n"));
        log4cplus::Logger::getRoot().addAppender(console);
        return new log4cplus::Logger(log4cplus::Logger::getInstance("tinyboard"));
    }();
    return *logger;
}

// The identity is a file of lines NAME=NUMBER and serial=TEXT.
namespace hwcommon {

struct DBusHardwareProxy::Private {};

DBusHardwareProxy::DBusHardwareProxy(DBusHardwareObserver* /*observer*/) : d(nullptr) {}
DBusHardwareProxy::~DBusHardwareProxy() = default;

std::string DBusHardwareProxy::getHardwareInfo() {
    std::string identity;
    fileUtil::getFileContent("/etc/tinyboard-identity", identity);
    return identity;
}

}  // namespace hwcommon

eepromXML::eepromXML(const std::string& text) { AnalyseXML(text); }

bool eepromXML::AnalyseXML(std::string text) {
    unsigned model = 0;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream value(line.substr(line.find('=') + 1));
        if (line.rfind("model=", 0) == 0) value >> model;
        if (line.rfind("family=", 0) == 0) value >> productFamily;
        if (line.rfind("revision=", 0) == 0) value >> boardRevision;
        if (line.rfind("serial=", 0) == 0) value >> serialNumber;
    }
    if (model <= MODEL_C600) modelType = static_cast<ModelType>(model);
    valid = modelType != MODEL_UNKNOWN && productFamily > 0 && !serialNumber.empty();
    if (!valid) {
        LOG4CPLUS_ERROR(LogAppender::getLogger(),
                        "/etc/tinyboard-identity needs lines model=1..6, family=1.., serial=TEXT");
    }
    return valid;
}

std::string eepromXML::GetSerialNumberString(bool /*grouped*/) const { return serialNumber; }

std::string GetModelNameStringExternal(ModelType modelType) {
    return "Tiny " + std::to_string(modelType);
}

const Capabilities& Capabilities::getInstance() {
    static const auto* const instance = new Capabilities(
        eepromXML(hwcommon::DBusHardwareProxy(nullptr).getHardwareInfo()).GetProductFamily());
    return *instance;
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

GPIOManager::GPIOManager() = default;
GPIOManager::~GPIOManager() = default;

int GPIOManager::exportPin(unsigned pin) {
    if (fileUtil::exists(lineFolder(pin))) return 1;
    return writeText("/sys/class/gpio/export", std::to_string(pin));
}

int GPIOManager::setDirection(unsigned pin, Direction direction) {
    // "out" would start with a low level; the two words below keep the present one.
    const char* const word =
        direction == Direction::INPUT ? "in" : (getValue(pin) == 1 ? "high" : "low");
    return writeText(lineFolder(pin) + "/direction", word);
}

int GPIOManager::getValue(unsigned pin) {
    std::ifstream file(lineFolder(pin) + "/value");
    int level = -1;
    return file >> level ? level : -1;
}

int GPIOManager::setValue(unsigned pin, Value value) {
    return writeText(lineFolder(pin) + "/value", value == Value::HIGH ? "1" : "0");
}

}  // namespace GPIO

namespace hwtools {

Condition::Condition(bool initially) : notified(initially) {}

int Condition::wait(unsigned milliseconds, bool reset) {
    std::unique_lock<std::mutex> lock(mutex);
    if (reset) notified = false;
    const auto limit = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
    return changed.wait_until(lock, limit, [this] { return notified; }) ? 0 : timedOut;
}

void Condition::notify() {
    const std::lock_guard<std::mutex> lock(mutex);
    notified = true;
    changed.notify_all();
}

}  // namespace hwtools
