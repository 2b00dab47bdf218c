// Pieces of bytes, all of one size, kept in memory up to a limit and beyond it in a file.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <mutex>
#include <optional>
#include <span>
#include <vector>

#include "platform/libFiles.h"

namespace vestrel {

class PieceStore {
 public:
    /// @param file beside which a temporary file grows when there are more than `mostInMemory`
    ///   pieces; it goes with the store. Empty to keep all pieces in memory.
    PieceStore(std::size_t pieceBytes, std::filesystem::path file, std::size_t mostInMemory);

    /// Adds a piece and returns its number: 0, 1, ... One thread at a time may do so, and no other
    /// may read or replace pieces meanwhile. @throws std::system_error when the file cannot be
    /// written
    std::uint32_t Add(std::span<const unsigned char> piece);

    // Several threads may do these at once, each with other pieces:

    /// Copies a piece. @throws std::system_error when the file cannot be read
    void Read(std::uint32_t number, std::span<unsigned char> piece);
    /// Gives a piece another content. @throws std::system_error when the file cannot be written
    void Replace(std::uint32_t number, std::span<const unsigned char> piece);

 private:
    void Seek(std::uint32_t number);
    void Write(std::uint32_t number, std::span<const unsigned char> piece);

    std::size_t pieceBytes_;
    std::filesystem::path path_;
    std::size_t mostInMemory_;
    std::uint32_t count_ = 0;
    std::vector<std::vector<unsigned char>> inMemory_;
    std::optional<NewFile> file_;  ///< never committed
    std::mutex fileInUse_;
};

}  // namespace vestrel
