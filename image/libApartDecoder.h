// Decoding in a child process, so that a damaged file which crashes a library does not end the
// program.
#pragma once

#include <functional>
#include <string>

#include "image/libDecoder.h"

namespace vestrel {

/// Decodes into a sink. Returns why that failed; empty when it succeeded.
using DecodeCall = std::function<std::string(PictureSink&)>;

/// Runs `decode` in a child process and passes every call that it makes to `sink`.
///
/// Some libraries read past the end of damaged data. A child that crashes, that sends nothing for
/// 20 s, or that needs more than 6 GiB or 30 s of processor time ends in a `DecodeFault`. On
/// Windows `decode` runs in this process.
/// @throws DecodeFault, and what `sink` throws
void DecodeApart(const DecodeCall& decode, PictureSink& sink);

}  // namespace vestrel
