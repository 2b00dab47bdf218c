#include "catalogtool/libFitsFile.h"

#include <array>
#include <charconv>
#include <fstream>
#include <string_view>
#include <utility>

#include "astro/libStrings.h"
#include "catalogtool/libToolReport.h"
#include "platform/libPlatform.h"

namespace vestrel {

void FitsFile::Closer::operator()(fitsfile* file) const noexcept {
    int status = 0;
    fits_close_file(file, &status);
    fits_clear_errmsg();
}

FitsFile::FitsFile(const std::filesystem::path& path, std::string name) : name_(std::move(name)) {
    fitsfile* opened = nullptr;
    int status = 0;
    // The "disk file" function takes the name literally, including brackets.
    fits_open_diskfile(&opened, TextFromPath(path).c_str(), READONLY, &status);
    handle_.reset(opened);
    Check(status, "open it");
    CheckHeaders(path);
}

void FitsFile::CheckHeaders(const std::filesystem::path& path) const {
    std::ifstream bytes(path, std::ios::binary);
    for (int status = 0; status == 0;) {
        LONGLONG end = 0;
        fits_get_hduaddrll(Handle(), nullptr, nullptr, &end, &status);
        Check(status, "find its tables");
        if (!bytes.seekg(end) || !IsNextSafe(bytes)) break;
        fits_movrel_hdu(Handle(), 1, nullptr, &status);
    }
    int status = 0;
    fits_movabs_hdu(Handle(), 1, nullptr, &status);
    Check(status, "read its first header");
    fits_clear_errmsg();
}

bool FitsFile::IsNextSafe(std::istream& bytes) const {
    // The library takes what follows "=" for the value, be it a blank or not.
    constexpr std::size_t valueStart = 9;
    constexpr int mostColumns = 999;
    std::array<char, 80> card{};
    bool isExtension = false;
    bool isTable = false;
    int columns = -1;
    for (bool first = true; bytes.read(card.data(), card.size()); first = false) {
        const std::string_view text(card.data(), card.size());
        const std::string_view value = Trim(text.substr(valueStart));
        if (first && !text.starts_with("XTENSION")) return false;
        if (first) {
            isExtension = true;
            isTable = value.find("TABLE") != std::string_view::npos;
        }
        if (text.starts_with("TFIELDS ")) {
            std::from_chars(value.data(), value.data() + value.size(), columns);
        }
        if (text.starts_with("TTYPE") && !value.starts_with('\'') && value.size() > longestName) {
            Fail("a column's name is no text (" + std::string(Trim(text.substr(0, 8))) + ")");
        }
        if (!text.starts_with("END     ")) continue;
        if (isTable && (columns < 0 || columns > mostColumns)) {
            Fail("a table does not say how many columns it has");
        }
        return true;
    }
    if (isExtension) Fail("a header is cut short");
    return false;
}

void FitsFile::Fail(const std::string& why) const {
    throw ToolFailure(ToolExit::BadInput, name_ + ": " + why);
}

void FitsFile::Check(int status, const std::string& task) const {
    if (status == 0) return;
    std::array<char, FLEN_STATUS> text{};
    fits_get_errstatus(status, text.data());
    fits_clear_errmsg();
    Fail("could not " + task + " (" + text.data() + "); the file may be cut short");
}

}  // namespace vestrel
