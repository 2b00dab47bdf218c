#include "compat/libCancelFile.h"

#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <mutex>
#include <system_error>

#include "platform/libPlatform.h"

namespace vestrel {

CancelFile::CancelFile(const std::string& path) {
    if (path.empty()) return;
    watcher_ =
        std::jthread([stop = stop_, file = PathFromText(path)](const std::stop_token& end) mutable {
            constexpr std::chrono::milliseconds interval{100};
            std::mutex mutex;
            std::condition_variable_any wakes;
            std::unique_lock lock(mutex);
            while (!end.stop_requested()) {
                std::error_code ignored;
                if (std::filesystem::exists(file, ignored)) {
                    stop.request_stop();
                    return;
                }
                wakes.wait_for(lock, end, interval, [] { return false; });
            }
        });
}

CancelFile::~CancelFile() = default;

}  // namespace vestrel
