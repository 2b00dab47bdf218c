// An input file of cfitsio; each failure ends the subcommand with one message.
#pragma once

#include <fitsio.h>

#include <cstddef>
#include <filesystem>
#include <iosfwd>
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
    /// Looks at each header before the library does. That keeps a column's name in 70 bytes and
    /// writes one more when the card has 70 without quotes, which ends the process; and where the
    /// number of columns is missing, it asks for any amount of memory.
    void CheckHeaders(const std::filesystem::path& path) const;
    /// Whether another extension follows; throws a `ToolFailure` when it is unsafe to read.
    /// @param bytes from the end of the one before on
    bool IsNextSafe(std::istream& bytes) const;
    static constexpr std::size_t longestName = 68;

    std::string name_;
    std::unique_ptr<fitsfile, Closer> handle_;
};

}  // namespace vestrel
