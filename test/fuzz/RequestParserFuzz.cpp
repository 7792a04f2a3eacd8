#include "Fuzz.h"

#include <kelkv/Resp.h>

#include <string>
#include <string_view>
#include <vector>

namespace {

using KelKv::RequestParser;
using State = RequestParser::State;

struct Request {
    std::vector<std::string> words;
    std::size_t size;

    bool operator==(Request const&) const = default;
};

/// What a connection does: input grows, whole requests are taken from its beginning.
class Reader {
  public:
    void read(std::string_view piece) {
        unread_ += piece;
        while ((state_ = parser_.parse(unread_)) == State::complete)
            takeRequest();
    }

    std::vector<Request> const& requests() const { return requests_; }
    std::string const& unread() const { return unread_; }
    State state() const { return state_; }

    friend bool operator==(Reader const& a, Reader const& b) {
        return a.requests_ == b.requests_ && a.unread_ == b.unread_ && a.state_ == b.state_ &&
               (a.state_ != State::malformed || a.parser_.error() == b.parser_.error());
    }

  private:
    void takeRequest() {
        MOX_ASSERT(0 < parser_.size() && parser_.size() <= unread_.size());
        std::string_view const request = std::string_view(unread_).substr(0, parser_.size());
        for (std::string_view const word : parser_.arguments())
            MOX_ASSERT(request.begin() <= word.begin() && word.end() <= request.end());
        requests_.push_back({{parser_.arguments().begin(), parser_.arguments().end()}, parser_.size()});
        unread_.erase(0, parser_.size());
        parser_.reset();
    }

    RequestParser parser_;
    std::string unread_;
    std::vector<Request> requests_;
    State state_ = State::incomplete;
};

/// Byte by byte, each request is whole at its last byte and not before, whatever comes after it.
Reader readByteByByte(std::string_view input) {
    Reader reader;
    for (std::size_t at = 0; at < input.size(); ++at) {
        std::size_t const before = reader.requests().size();
        reader.read(input.substr(at, 1));
        MOX_ASSERT(reader.requests().size() <= before + 1);
        MOX_ASSERT(reader.requests().size() == before || reader.unread().empty());
    }
    return reader;
}

std::string canonicalForm(Request const& request) {
    std::string form;
    KelKv::ReplyWriter writer(form);
    writer.array(request.words.size());
    for (std::string const& word : request.words)
        writer.bulk(word);
    return form;
}

/// The array of bulk strings that clients send is read as the same request, and to its end.
void checkCanonicalForm(Request const& request) {
    std::string const form = canonicalForm(request);
    Reader reader;
    reader.read(form);
    std::vector<Request> const expected{{request.words, form.size()}};
    MOX_ASSERT(reader.requests() == expected && reader.state() == State::incomplete);
}

} // namespace

int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    std::string_view const input(reinterpret_cast<char const*>(data), size);
    Reader whole;
    whole.read(input);
    for (Request const& request : whole.requests())
        checkCanonicalForm(request);
    MOX_ASSERT(readByteByByte(input) == whole);
    // What waits for more was left as it is: read again from its beginning, it waits again.
    Reader again;
    again.read(whole.unread());
    MOX_ASSERT(again.requests().empty() && again.state() == whole.state());
    return 0;
}
