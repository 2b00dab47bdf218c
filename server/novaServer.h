// The web interface: the part of the astrometry.net interface that other programs use, and a page
// for browsers.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "server/jobQueue.h"

namespace vestrel {

struct ServerSettings {
    std::string Address = "127.0.0.1";
    int Port = 7890;                                      ///< 0: any free port
    std::string Key;                                      ///< the required API key; empty: any
    std::uint64_t MostBody = std::uint64_t{512} << 20;    ///< largest request, bytes
    std::uint64_t MostInFlight = std::uint64_t{1} << 30;  ///< largest size of all requests
                                                          ///< together, bytes
};

/// Serves a queue on its own threads.
class NovaServer {
 public:
    NovaServer(const ServerSettings& settings, JobQueue& queue);
    ~NovaServer();
    NovaServer(const NovaServer&) = delete;
    NovaServer& operator=(const NovaServer&) = delete;

    /// Begins to serve. @return the port; 0 when the address cannot be used
    int Start();
    /// Ends all connections.
    void Stop();

 private:
    class Routes;
    std::unique_ptr<Routes> routes_;
};

/// The HTML page for browsers.
extern const char* const ServerPage;

}  // namespace vestrel
