// An input file of cfitsio; each failure ends the subcommand with one message.
#pragma once

#include <fitsio.h>

#include <filesystem>
#include <memory>
#include <string>

namespace vestrel {

class FitsFile {
 public:
    /// Opens a file for reading.
    /// @param name of the input in messages
    FitsFile(const std::filesystem::path& path, std::string name);

    fitsfile* Handle() const { return handle_.get(); }
    const std::string& Name() const { return name_; }

    /// Throws a `ToolFailure` that says why the input is not usable.
    [[noreturn]] void Fail(const std::string& why) const;

    /// Throws a `ToolFailure` when a call of the library has failed.
    /// @param task what could not be done: "list its columns"
    void Check(int status, const std::string& task) const;

 private:
    struct Closer {
        void operator()(fitsfile* file) const noexcept;
    };
    std::string name_;
    std::unique_ptr<fitsfile, Closer> handle_;
};

}  // namespace vestrel
