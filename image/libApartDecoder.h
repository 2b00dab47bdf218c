// Decoding in a process of its own, which a damaged file may end without ending the program.
#pragma once

#include <functional>
#include <string>

#include "image/libDecoder.h"

namespace vestrel {

/// Decodes for a sink. The result is the reason why that failed, empty when it did not.
using DecodeCall = std::function<std::string(PictureSink&)>;

/// Runs `decode` in a child process and hands on to `sink` what it makes of the picture.
///
/// Some libraries read past the end of damaged data. Of a child that crashes, that falls silent
/// for a minute, or that takes more memory or processor time than any picture needs, nothing is
/// left but a `DecodeFault`. Where there are no child processes, `decode` runs right here.
/// @throws DecodeFault, and what `sink` throws
void DecodeApart(const DecodeCall& decode, PictureSink& sink);

}  // namespace vestrel
