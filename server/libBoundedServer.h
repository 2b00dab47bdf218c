// The library's web server, within bounds that it lacks.
#pragma once

#include <httplib.h>

namespace vestrel {

/// A web server that no client can fill or occupy: the head of a request has to come within 10 s
/// and 64 kB, then 10 kB of its body each 10 s; there are at most 512 connections, of which 128 are
/// served at a time, one request each. Ranges are ignored: the whole is sent.
class BoundedServer : public httplib::Server {
 public:
    BoundedServer();

 private:
    bool process_and_close_socket(socket_t socket) override;
};

}  // namespace vestrel
