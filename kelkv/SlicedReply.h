#pragma once

#include "Steps.h"
#include "TextSequence.h"

#include <registry/SchedulerTree.h>

#include <memory>

namespace KelKv {

/// Replies with texts that are made in slices.

/// What is left of such a text when its reader goes is the scavenger's.
GatheredBulk::Parts partsOf(Engine& engine, SlicedTextPtr text);

/// Replies with the answer's text, its list, or OK where there is none; what it throws is the error. A short
/// one is made at once.
void answerInSlices(CommandContext& context, std::unique_ptr<Kel::SchedulerTree::Answer> answer);

} // namespace KelKv
