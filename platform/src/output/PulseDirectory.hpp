// The sound server's view of devices: outputs (sinks), inputs (sources), the
// defaults, and change notifications.
//
// One connection is kept open while the server is reachable; when it is not,
// a new attempt is made at most once a second, so listing devices without a
// server stays cheap. Threading: any thread; lists are copied out under a
// mutex. Notifications go to the device-change procedure on the server's
// thread.
#pragma once

#include <string>
#include <vector>

namespace tavro::platform {

struct ServerDevice {
    std::string name;        // the server's name for it
    std::string description; // what a person reads
    bool present = true;     // false once the server removed it (numbers stay stable)
    bool isMonitor = false;  // a source that records what an output plays
};

struct ServerDevices {
    bool reachable = false;
    std::vector<ServerDevice> sinks, sources;
    std::string defaultSink, defaultSource;
};

class PulseDirectory {
  public:
    static ServerDevices snapshot();
    // Reports that a stream of ours on the server failed.
    static void reportStreamFailure();
};

} // namespace tavro::platform
