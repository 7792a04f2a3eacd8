#include "SlicedReply.h"

#include <algorithm>
#include <string>
#include <vector>

namespace KelKv {

namespace {

constexpr std::size_t linesAtATime = 50;
constexpr int stepsAtOnce = 4; // some ten microseconds each

/// A text under way, which is left to the scavenger when nobody wants the rest.
template <class T> class UnderWay {
  public:
    UnderWay(Engine& engine, std::unique_ptr<T> text)
        : scavenger_(engine.scavenger), text_(std::move(text)) {}
    ~UnderWay() {
        if (!isDone_)
            scavenger_->add(std::make_unique<RemainsOfText>(std::move(text_)));
    }
    UnderWay(UnderWay const&) = delete;
    UnderWay& operator=(UnderWay const&) = delete;

    /// `next` tells whether there is more, or throws.
    template <class Next> bool take(Next next) {
        isDone_ = true;
        isDone_ = !next(*text_);
        return !isDone_;
    }
    T const& text() const { return *text_; }

  private:
    Mox::Ptr<Scavenger> const scavenger_;
    std::unique_ptr<T> text_;
    bool isDone_ = false;
};

class Answer : UnderWay<Kel::SchedulerTree::Answer> {
  public:
    using UnderWay::UnderWay;

    bool step(CommandContext& context) try {
        if (isGathering_)
            isGathering_ = take([&](Kel::SchedulerTree::Answer& text) { return text.nextLines(lines_); });
        if (isGathering_)
            return true;
        return text().isList() ? replySome(context) : replyText(context);
    } catch (Mox::Exception const& e) {
        context.reply.error(e.what());
        return false;
    }

  private:
    bool replyText(CommandContext& context) const {
        if (lines_.empty())
            context.reply.status("OK");
        else
            context.reply.bulk(lines_.front());
        return false;
    }
    bool replySome(CommandContext& context) {
        if (replied_ == 0)
            context.reply.array(lines_.size());
        std::size_t const end = std::min(replied_ + linesAtATime, lines_.size());
        while (replied_ < end)
            context.reply.bulk(lines_[replied_++]);
        return replied_ < lines_.size();
    }

    bool isGathering_ = true;
    std::vector<std::string> lines_;
    std::size_t replied_ = 0;
};

} // namespace

GatheredBulk::Parts partsOf(Engine& engine, SlicedTextPtr text) {
    auto const underWay = std::make_shared<UnderWay<Kel::SlicedText>>(engine, std::move(text));
    return [underWay](std::string& part) {
        return underWay->take([&](Kel::SlicedText& of) { return of.next(part); });
    };
}

void answerInSlices(CommandContext& context, std::unique_ptr<Kel::SchedulerTree::Answer> answer) {
    auto const underWay = std::make_shared<Answer>(context.engine, std::move(answer));
    for (int i = 0; i < stepsAtOnce; ++i)
        if (!underWay->step(context))
            return;
    context.rest = [underWay](CommandContext& step) { return underWay->step(step); };
}

} // namespace KelKv
