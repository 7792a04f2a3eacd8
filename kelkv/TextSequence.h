#pragma once

#include "Scavenger.h"

#include <kel/SlicedText.h>

#include <exception>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace KelKv {

using SlicedTextPtr = std::unique_ptr<Kel::SlicedText>;

/// A text that is there already.
class PlainText : public Kel::SlicedText {
  public:
    explicit PlainText(std::string text) : text_(std::move(text)) {}
    bool next(std::string& text) override {
        text += text_;
        return false;
    }

  private:
    std::string const text_;
};

/// Texts one behind the other.
class TextSequence : public Kel::SlicedText {
  public:
    void add(SlicedTextPtr text) { texts_.push_back(std::move(text)); }
    void add(std::string text) { add(std::make_unique<PlainText>(std::move(text))); }
    bool next(std::string& text) override {
        if (at_ < texts_.size() && !texts_[at_]->next(text))
            texts_[at_++] = nullptr;
        return at_ < texts_.size();
    }

  private:
    std::vector<SlicedTextPtr> texts_;
    std::size_t at_ = 0;
};

/// A text whose reader has gone: it lets go of what it has gathered in the slices that are left of it.
class RemainsOfText : public Remains {
  public:
    explicit RemainsOfText(SlicedTextPtr text) : text_(std::move(text)) {}
    /// Nobody is left to be told what went wrong.
    bool dropOne() override try {
        dropped_.clear();
        return text_->next(dropped_);
    } catch (std::exception const&) {
        return false;
    }

  private:
    SlicedTextPtr text_;
    std::string dropped_;
};

} // namespace KelKv
