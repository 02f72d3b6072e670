// Takes its input as an address, or as an address and a reference behind a line break, through all
// that is done with addresses.

#include "Foundation/Url.h"
#include "Networking/BrowserUrl.h"

#include <glog/logging.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace {

using namespace Halvex::Networking;

bool IsSendable(const std::string& text) {
    return std::all_of(text.begin(), text.end(),
                       [](char character) { return character > ' ' && character < 0x7f; });
}

void CheckAddress(const std::string& text) {
    const Url url(text);
    CHECK_EQ(url.toString(), text);
    const std::string sent = BrowserUrl(text);
    const std::string origin = OriginOf(text);
    if (!url.isValid())
        return;
    CHECK(IsSendable(sent)) << sent;
    CHECK_EQ(sent.find('#'), std::string::npos) << sent;
    CHECK_EQ(BrowserUrl(sent), sent);
    CHECK(SchemeOf(text) == "http" || SchemeOf(text) == "https");
    CHECK_EQ(origin.find('@'), std::string::npos) << origin;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string input(reinterpret_cast<const char*>(data), size);
    const std::size_t lineBreak = std::min(input.find('\n'), input.size());
    const std::string address = input.substr(0, lineBreak);
    const std::string reference = input.substr(std::min(lineBreak + 1, input.size()));
    CheckAddress(address);
    CheckAddress(ResolvedUrl(address, reference));
    return 0;
}
