// Turns the creation of a file into a stop request.
#pragma once

#include <stop_token>
#include <string>
#include <thread>

namespace vestrel {

/// Looks for a file ten times a second while it lives, and requests a stop once the file exists.
class CancelFile {
 public:
    /// @param path UTF-8; empty: nothing is watched
    explicit CancelFile(const std::string& path);
    ~CancelFile();
    CancelFile(const CancelFile&) = delete;
    CancelFile& operator=(const CancelFile&) = delete;

    std::stop_token Token() const { return stop_.get_token(); }

 private:
    std::stop_source stop_;
    std::jthread watcher_;
};

}  // namespace vestrel
