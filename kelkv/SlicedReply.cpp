#include "SlicedReply.h"

#include <algorithm>
#include <string>
#include <vector>

namespace KelKv {

namespace {

constexpr std::size_t linesAtATime = 50;
constexpr int stepsAtOnce = 4; // some ten microseconds each

/// A text under way, which is left to the scavenger when nobody wants the rest.
class TextUnderWay {
  public:
    TextUnderWay(Engine& engine, SlicedTextPtr text) : scavenger_(engine.scavenger), text_(std::move(text)) {}
    ~TextUnderWay() {
        if (!isDone_)
            scavenger_->add(std::make_unique<RemainsOfText>(std::move(text_)));
    }
    TextUnderWay(TextUnderWay const&) = delete;
    TextUnderWay& operator=(TextUnderWay const&) = delete;

    /// One that throws is done, too.
    bool next(std::string& part) {
        isDone_ = true;
        isDone_ = !text_->next(part);
        return !isDone_;
    }

  private:
    Mox::Ptr<Scavenger> const scavenger_;
    SlicedTextPtr text_;
    bool isDone_ = false;
};

/// It has a thousand lines and some at most, so that it may be dropped in one go; what is left of an
/// operation is not carried out then.
class Answer {
  public:
    explicit Answer(std::unique_ptr<Kel::SchedulerTree::Answer> text) : text_(std::move(text)) {}

    bool step(CommandContext& context) try {
        if (isGathering_)
            isGathering_ = text_->nextLines(lines_);
        if (isGathering_)
            return true;
        return text_->isList() ? replySome(context) : replyText(context);
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

    std::unique_ptr<Kel::SchedulerTree::Answer> const text_;
    bool isGathering_ = true;
    std::vector<std::string> lines_;
    std::size_t replied_ = 0;
};

} // namespace

GatheredBulk::Parts partsOf(Engine& engine, SlicedTextPtr text) {
    auto const underWay = std::make_shared<TextUnderWay>(engine, std::move(text));
    return [underWay](std::string& part) { return underWay->next(part); };
}

void answerInSlices(CommandContext& context, std::unique_ptr<Kel::SchedulerTree::Answer> answer) {
    auto const underWay = std::make_shared<Answer>(std::move(answer));
    for (int i = 0; i < stepsAtOnce; ++i)
        if (!underWay->step(context))
            return;
    context.rest = [underWay](CommandContext& step) { return underWay->step(step); };
}

} // namespace KelKv
