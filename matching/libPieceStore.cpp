#include "matching/libPieceStore.h"

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <system_error>
#include <utility>

#include "platform/libPlatform.h"

namespace vestrel {

namespace {

[[noreturn]] void ThrowLastError(const char* what, const std::filesystem::path& path) {
    throw std::system_error(errno != 0 ? errno : EIO, std::generic_category(),
                            what + TextFromPath(path));
}

}  // namespace

PieceStore::PieceStore(std::size_t pieceBytes, std::filesystem::path file, std::size_t mostInMemory)
    : pieceBytes_(pieceBytes), path_(std::move(file)), mostInMemory_(mostInMemory) {}

std::uint32_t PieceStore::Add(std::span<const unsigned char> piece) {
    assert(piece.size() == pieceBytes_);
    if (path_.empty() || count_ < mostInMemory_) {
        inMemory_.emplace_back(piece.begin(), piece.end());
    } else {
        if (!file_) file_.emplace(path_);
        Write(count_, piece);
    }
    return count_++;
}

void PieceStore::Read(std::uint32_t number, std::span<unsigned char> piece) {
    if (number < inMemory_.size()) {
        std::copy(inMemory_[number].begin(), inMemory_[number].end(), piece.begin());
        return;
    }
    const std::lock_guard guard(fileInUse_);
    Seek(number);
    if (std::fread(piece.data(), 1, pieceBytes_, file_->Stream()) != pieceBytes_) {
        ThrowLastError("Cannot read back ", path_);
    }
}

void PieceStore::Replace(std::uint32_t number, std::span<const unsigned char> piece) {
    if (number < inMemory_.size()) {
        inMemory_[number].assign(piece.begin(), piece.end());
        return;
    }
    const std::lock_guard guard(fileInUse_);
    Write(number, piece);
}

void PieceStore::Seek(std::uint32_t number) {
    errno = 0;
    // A stream needs it too between reading and writing.
    if (!SeekFile(file_->Stream(), (number - inMemory_.size()) * std::uint64_t{pieceBytes_})) {
        ThrowLastError("Cannot use ", path_);
    }
}

void PieceStore::Write(std::uint32_t number, std::span<const unsigned char> piece) {
    Seek(number);
    if (std::fwrite(piece.data(), 1, pieceBytes_, file_->Stream()) != pieceBytes_) {
        ThrowLastError("Cannot write ", path_);
    }
}

}  // namespace vestrel
