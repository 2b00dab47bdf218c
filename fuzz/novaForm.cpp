// Requests to the server: the first line is a Content-Type, the rest is the body.

#include "fuzz/fuzzSupport.h"
#include "server/libFormData.h"
#include "server/novaRequest.h"

namespace vestrel {
namespace {

void CheckRequest(std::string_view json) {
    std::string fault;
    const auto request = ParseNovaRequest(json, fault);
    if (!request) return Require(!fault.empty(), "what is refused has a reason");
    for (const SolverCentre& centre : request->Hints.Centres) {
        Require(centre.Ra >= 0 && centre.Ra <= 360, "right ascension lies in the circle");
        Require(centre.Dec >= -90 && centre.Dec <= 90, "declination lies on the sky");
        Require(centre.Radius > 0 && centre.Radius <= 180, "the radius is one");
    }
    for (const auto& range : {request->Hints.Scale, request->Hints.FieldWidth}) {
        Require(!range || (range->Low > 0 && range->High >= range->Low), "ranges are in order");
    }
    if (request->Stars) {
        Require(request->Stars->Width >= 1 && request->Stars->Height >= 1, "the field has a size");
    }
}

}  // namespace
}  // namespace vestrel

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace vestrel;
    const std::string_view input = TextOf(data, size);
    const std::size_t line = std::min(input.find('\n'), input.size());
    const std::string_view body = input.substr(std::min(line + 1, input.size()));
    if (const auto boundary = BoundaryOf(input.substr(0, line))) {
        if (const auto parts = ParseMultipart(body, *boundary)) {
            const char* end = body.data();
            for (const FormPart& part : *parts) {
                Require(part.Body.data() >= end, "parts follow one another");
                end = part.Body.data() + part.Body.size();
                Require(end <= body.data() + body.size(), "parts lie in the body");
                Require(part.FileName.find('/') == std::string::npos, "names hold no folder");
                CheckRequest(part.Body);
            }
        }
    }
    if (const auto field = UrlEncodedField(body, "request-json")) CheckRequest(*field);
    CheckRequest(body);
    return 0;
}
