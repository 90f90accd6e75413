// One request and the answer to it, on the way from a resource to the wire.
#pragma once

#include <chrono>
#include <string>
#include <utility>
#include <vector>

namespace cloudsim {

using Words = std::vector<std::string>;

enum class Ending {
    Whole,       // the whole answer, then a proper TLS shutdown
    NoHeaders,   // closed before the first byte
    HalfBody,    // closed in the middle of the body, without a TLS shutdown
    ShortBody,   // half of the body, then a proper TLS shutdown
    BrokenChunk  // a chunked body that ends in an invalid chunk size
};

struct Exchange {
    std::string url;     // of this server
    std::string target;  // of the request, as it stood on the wire

    int status = 200;
    std::string contentType = "application/json";
    std::string body;
    std::vector<std::pair<std::string, std::string>> headers;

    std::string fault;  // the kind that was put upon it, or empty
    std::string raw;    // instead of all above, when not empty
    Ending ending = Ending::Whole;
    bool held = false;                           // until it is released
    std::chrono::milliseconds delay{};           // before the first byte
    std::chrono::milliseconds byteInterval{-1};  // between two bytes; negative: all at once
};

/// A text as a JSON string with its quotes; zero bytes and control characters are escaped, other bytes stay.
std::string quote(const std::string& text);

/// What a number in an order may be at most.
inline constexpr size_t KLargestNumber = size_t{64} << 20;

/// The number that is all of a word; throws std::invalid_argument when there is none from `least` to `most`.
size_t toNumber(const std::string& word, size_t least = 0, size_t most = KLargestNumber);

}  // namespace cloudsim
