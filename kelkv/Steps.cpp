#include "Steps.h"

namespace KelKv {

void GatheredBulk::reply(CommandContext& context, Parts parts) {
    std::string first;
    if (!parts(first))
        return context.reply.text(first);
    auto const gathered = std::make_shared<GatheredBulk>(std::move(parts), std::move(first),
                                                         context.engine.gatheredBy(context.session));
    context.rest = [gathered](CommandContext& step) { return gathered->step(step); };
}

GatheredBulk::GatheredBulk(Parts parts, std::string&& first, ByteLimit& limit)
    : parts_(std::move(parts)), gathered_(limit) {
    add(std::move(first));
}

bool GatheredBulk::step(CommandContext& context) {
    if (!parts_) {
        gathered_.sizeIs(gathered_.size() - pieces_.front().size());
        context.reply.written(std::move(pieces_.front()));
        pieces_.pop_front();
        return !pieces_.empty();
    }
    gather(context.reply.isResp3());
    if (!gathered_.isTooMuch())
        return true;
    gathered_.refusedInc();
    context.reply.error("texts that nobody has read take too much memory", "OOM");
    return false;
}

void GatheredBulk::gather(bool isResp3) {
    std::string part;
    bool const isLast = !parts_(part);
    add(std::move(part));
    if (!isLast)
        return;
    parts_ = nullptr;
    std::string head;
    appendTextHead(head, gathered_.size(), isResp3);
    add("\r\n");
    gathered_.sizeIs(gathered_.size() + head.size());
    pieces_.push_front(std::move(head));
}

void GatheredBulk::add(std::string&& piece) {
    gathered_.sizeIs(gathered_.size() + piece.size());
    if (!piece.empty())
        pieces_.push_back(std::move(piece));
}

} // namespace KelKv
