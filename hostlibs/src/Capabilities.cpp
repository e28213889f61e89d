#include "Capabilities.h"

#include "eepromXML.h"
#include "hwcommon/DBusHardwareProxy.h"

const Capabilities& Capabilities::getInstance() {
    // Never destroyed: the manager asks while static objects are destroyed.
    static const Capabilities* const instance = new Capabilities(
        eepromXML(hwcommon::DBusHardwareProxy(nullptr).getHardwareInfo()).GetProductFamily());
    return *instance;
}
