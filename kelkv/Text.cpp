#include "Text.h"

#include <algorithm>

namespace KelKv {

/// A block gets its room at once, and so stays where it is: somebody may be sending from it.
void LongText::append(std::string_view bytes) {
    while (!bytes.empty()) {
        std::string& block = blockWithRoom();
        std::size_t const taken = std::min(bytes.size(), blockSize - block.size());
        block.append(bytes.substr(0, taken));
        bytes.remove_prefix(taken);
    }
}

/// The last block, or a new one: who takes one frees one of those that are left, of which there would be ever
/// more else while many clients write. One that is shared is copied, as often as that may be: with a new
/// block each time, texts that are copied and appended to in turn would become as many blocks as bytes.
std::string& LongText::blockWithRoom() {
    if (blocks_.empty() || blocks_.back().bytes->size() == blockSize) {
        scavenger_->dropOne();
        blocks_.push_back({size(), std::make_shared<std::string>()});
        blocks_.back().bytes->reserve(blockSize);
    } else if (blocks_.back().bytes.use_count() > 1) {
        auto const copied = std::make_shared<std::string>();
        copied->reserve(blockSize);
        *copied = *blocks_.back().bytes;
        blocks_.back().bytes = copied;
    }
    return *blocks_.back().bytes;
}

void LongText::append(LongText const& text) {
    for (Block const& block : text.blocks_)
        blocks_.push_back({size(), block.bytes});
}

std::string_view LongText::from(std::size_t at) const {
    auto const behind =
        std::ranges::upper_bound(blocks_, at, {}, [](Block const& block) { return block.begin; });
    Block const& block = *std::prev(behind);
    return std::string_view(*block.bytes).substr(at - block.begin);
}

void intrusive_ptr_release(LongText* text) {
    if (--text->references_ > 0)
        return;
    std::unique_ptr<LongText> const owner(text);
    if (text->blocks_.size() > 1)
        text->scavenger_->add(
            std::make_unique<RemainsOf<std::vector<LongText::Block>>>(std::move(text->blocks_)));
}

std::size_t Text::size() const { return isLong() ? longText()->size() : view().size(); }

Text::Text(Word const& word, Mox::Ptr<Scavenger> const& scavenger) {
    if (word.text)
        bytes_ = word.text;
    else
        append(word.view, scavenger);
}

void Text::append(std::string_view bytes, Mox::Ptr<Scavenger> const& scavenger) {
    if (!isLong() && size() + bytes.size() > shortMax)
        becomeLong(scavenger);
    if (isLong())
        longText()->append(bytes);
    else
        std::get<std::string>(bytes_).append(bytes);
}

void Text::append(Word const& word, Mox::Ptr<Scavenger> const& scavenger) {
    if (!word.text)
        return append(word.view, scavenger);
    if (!isLong())
        becomeLong(scavenger);
    longText()->append(*word.text);
}

void Text::becomeLong(Mox::Ptr<Scavenger> const& scavenger) {
    LongTextPtr const longText(new LongText(scavenger));
    longText->append(view());
    bytes_ = longText;
}

Text Text::clone(Mox::Ptr<Scavenger> const& scavenger) const {
    Text text = *this;
    if (isLong()) {
        LongTextPtr const shared(new LongText(scavenger));
        shared->append(*longText());
        text.bytes_ = shared;
    }
    return text;
}

} // namespace KelKv
