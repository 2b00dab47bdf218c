#include "batch/libJournal.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <stdexcept>
#include <string_view>
#include <system_error>

#include "platform/libPlatform.h"

namespace vestrel {

namespace {

using Json = nlohmann::ordered_json;

constexpr const char* bytesEnding = "_hex";

/// The beginning of every line; a file that begins otherwise is no journal.
constexpr std::string_view firstWords = "{\"picture\":";

bool IsUtf8(const std::string& text) {
    try {
        (void)nlohmann::json(text).dump();
        return true;
    } catch (const nlohmann::json::type_error&) {
        return false;
    }
}

int DigitOf(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    return c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
}

/// The object of a line; null when it is not the line of a picture.
Json LineOf(const std::string& text) {
    Json line = Json::parse(text, nullptr, false);
    if (!line.is_object() || !line.contains(PictureKey) || !line[PictureKey].is_string()) return {};
    return line;
}

/// The path that `AddPath` added, whose key holds a text.
std::string PathIn(const Json& object, const std::string& key) {
    const auto hex = object.find(key + bytesEnding);
    if (hex == object.end() || !hex->is_string()) return object.value(key, "");
    const auto digits = hex->get<std::string>();
    std::string path;
    for (std::size_t i = 0; i + 1 < digits.size(); i += 2) {
        path += static_cast<char>(DigitOf(digits[i]) * 16 + DigitOf(digits[i + 1]));
    }
    return path;
}

[[noreturn]] void Fail(const std::filesystem::path& file, const std::string& why) {
    throw std::runtime_error("The journal " + TextFromPath(file) + " " + why);
}

}  // namespace

void AddPath(Json& object, const std::string& key, const std::string& path) {
    object[key] = path;
    if (IsUtf8(path)) return;
    constexpr const char* digits = "0123456789abcdef";
    std::string hex;
    for (const char c : path) {
        const auto byte = static_cast<unsigned char>(c);
        hex += digits[byte / 16];
        hex += digits[byte % 16];
    }
    object[key + bytesEnding] = hex;
}

std::string PicturePathOf(const Json& line) {
    return PathIn(line, PictureKey);
}

std::vector<std::string> WrittenPathsOf(const Json& line) {
    std::vector<std::string> paths;
    const auto files = line.find("files");
    if (files == line.end() || !files->is_object()) return paths;
    for (const auto& [key, file] : files->items()) {
        if (file.is_string() && !key.ends_with(bytesEnding)) paths.push_back(PathIn(*files, key));
    }
    return paths;
}

std::size_t ReadJournal(const std::filesystem::path& file,
                        const std::function<void(const Json& line)>& take) {
    std::ifstream in(file, std::ios::binary);
    std::size_t strange = 0;
    std::string text;
    while (std::getline(in, text)) {
        if (in.eof()) break;  // incomplete: still being written, or never finished
        const Json line = LineOf(text);
        if (line.is_null()) {
            ++strange;
        } else {
            take(line);
        }
    }
    return strange;
}

Journal::Journal(const std::filesystem::path& file) : file_(file) {
    constexpr mode_t permissions = 0666;
    handle_ = open(file.c_str(), O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, permissions);
    if (handle_ < 0)
        Fail(file, "cannot be opened: " + std::generic_category().message(errno) + ".");
    try {
        // A pipe would be read to its end, which never comes.
        struct stat facts {};
        if (fstat(handle_, &facts) != 0 || !S_ISREG(facts.st_mode)) Fail(file, "is no file.");
        if (flock(handle_, LOCK_EX | LOCK_NB) != 0) {
            if (errno == EWOULDBLOCK) Fail(file, "is in use by another process.");
            Fail(file, "cannot be locked: " + std::generic_category().message(errno) + ".");
        }
        Heal();
        strange_ =
            ReadJournal(file, [this](const Json& line) { done_.insert(PicturePathOf(line)); });
    } catch (...) {
        close(handle_);
        throw;
    }
}

Journal::~Journal() {
    fsync(handle_);
    close(handle_);
}

bool Journal::Has(const std::string& picture) const {
    const std::lock_guard guard(lock_);
    return done_.contains(picture);
}

void Journal::Heal() {
    std::ifstream in(file_, std::ios::binary);
    std::string start(firstWords.size(), '\0');
    in.read(start.data(), static_cast<std::streamsize>(start.size()));
    start.resize(static_cast<std::size_t>(in.gcount()));
    if (start != firstWords.substr(0, start.size())) Fail(file_, "is a file of another kind.");
    const off_t length = lseek(handle_, 0, SEEK_END);
    // Searches back from the end, piece by piece, for the end of the last complete line.
    constexpr off_t piece = 1 << 16;
    off_t keep = 0;
    for (off_t end = length; end > 0 && keep == 0; end -= piece) {
        const off_t begin = end > piece ? end - piece : 0;
        std::string bytes(static_cast<std::size_t>(end - begin), '\0');
        if (pread(handle_, bytes.data(), bytes.size(), begin) !=
            static_cast<ssize_t>(bytes.size())) {
            Fail(file_, "cannot be read.");
        }
        const std::size_t last = bytes.rfind('\n');
        if (last != std::string::npos) keep = begin + static_cast<off_t>(last) + 1;
    }
    if (keep < length && ftruncate(handle_, keep) != 0) Fail(file_, "cannot be mended.");
}

void Journal::Add(const std::string& picture, const Json& line) {
    struct stat facts {};
    if (fstat(handle_, &facts) == 0 && facts.st_nlink == 0) Fail(file_, "has been deleted.");
    const std::string text = line.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
    const off_t before = lseek(handle_, 0, SEEK_END);
    std::string_view rest = text;
    while (!rest.empty()) {
        const ssize_t written = write(handle_, rest.data(), rest.size());
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) {
            const std::string why = std::generic_category().message(errno);
            (void)!ftruncate(handle_, before);
            Fail(file_, "cannot be written: " + why + ".");
        }
        rest.remove_prefix(static_cast<std::size_t>(written));
    }
    const std::lock_guard guard(lock_);
    done_.insert(picture);
}

}  // namespace vestrel
