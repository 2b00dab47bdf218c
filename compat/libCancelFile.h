// A stop that is asked for by creating a file.
#pragma once

#include <stop_token>
#include <string>
#include <thread>

namespace vestrel {

/// Watches for a file while it lives, ten times a second; once it is there a stop is asked for.
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
