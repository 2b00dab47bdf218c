// Decoding in a child process, so that a damaged file which crashes a library does not end the
// program.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "image/libDecoder.h"

namespace vestrel {

/// Decodes into a sink. Returns why that failed; empty when it succeeded.
using DecodeCall = std::function<std::string(PictureSink&)>;

/// What a child process may use.
struct ApartLimits {
    std::uint64_t Memory = std::uint64_t{6} << 30;  ///< bytes, beside what this process has mapped
    /// Twice what the largest picture takes (a quarter of a billion pixels packed by HCOMPRESS).
    std::uint64_t ProcessorSeconds = 30;
    int SilenceMilliseconds = 20000;  ///< without work, between two pieces that it sends
};

/// The beginning of the fault when the system had no process or socket left. It says nothing about
/// the picture: another time it may be decoded.
inline constexpr const char* NoMeansToDecode = "The system cannot decode it now";

/// Runs `decode` in a child process and passes every call that it makes to `sink`.
///
/// Some libraries read past the end of damaged data. A child that crashes or exceeds a limit ends
/// in a `DecodeFault`. On Windows `decode` runs in this process.
/// @throws DecodeFault, and what `sink` throws
void DecodeApart(const DecodeCall& decode, PictureSink& sink, const ApartLimits& limits = {});

}  // namespace vestrel
