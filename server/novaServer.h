// The web interface: the part of astrometry.net's that other programs use, and a page for people.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "server/jobQueue.h"

namespace vestrel {

struct ServerSettings {
    std::string Address = "127.0.0.1";
    int Port = 7890;                                    ///< 0: any that is free
    std::string Key;                                    ///< the API key that is wanted; empty: any
    std::uint64_t MostBody = std::uint64_t{512} << 20;  ///< bytes of a request
    std::uint64_t MostInFlight = std::uint64_t{1} << 30;  ///< bytes of all requests together
};

/// Serves a queue on threads of its own.
class NovaServer {
 public:
    NovaServer(const ServerSettings& settings, JobQueue& queue);
    ~NovaServer();
    NovaServer(const NovaServer&) = delete;
    NovaServer& operator=(const NovaServer&) = delete;

    /// Begins to serve. @return the port; 0 when the address cannot be had
    int Start();
    /// Ends all connections.
    void Stop();

 private:
    class Routes;
    std::unique_ptr<Routes> routes_;
};

/// The page for people.
extern const char* const ServerPage;

}  // namespace vestrel
