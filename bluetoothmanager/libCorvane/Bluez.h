#pragma once

namespace corvane::bluez {

/// BlueZ's names on the bus (doc/adapter-api.txt, device-api.txt, agent-api.txt of BlueZ 5). There
/// is one adapter.
constexpr char busName[] = "org.bluez";
constexpr char adapterInterface[] = "org.bluez.Adapter1";
constexpr char deviceInterface[] = "org.bluez.Device1";
constexpr char agentManagerInterface[] = "org.bluez.AgentManager1";
constexpr char agentManagerPath[] = "/org/bluez";
constexpr char adapterPath[] = "/org/bluez/hci0";
constexpr char devicePathPrefix[] = "/org/bluez/hci0/dev_";

}  // namespace corvane::bluez
