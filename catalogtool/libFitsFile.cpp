#include "catalogtool/libFitsFile.h"

#include <array>
#include <utility>

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
