#define MOX_SOURCE_NAME "DumpContext"
#include <kel/DumpContext.h>

#include <mox/Assert.h>
#include <mox/Type.h>

#include <array>
#include <cstdarg>
#include <cstdio>
#include <ostream>

namespace Kel {

MOX_DEFINE_TYPE(DumpContext, "Kel::DumpContext", &Mox::PtrInterface::type())

/// Nearly every line of a report fits on the stack; a longer one is formatted a second time, in memory of the
/// length that the first told.
void objDumpPrintf(Mox::Ptr<DumpContext const> const& context, char const* format, ...) {
    std::array<char, 512> line;
    va_list arguments;
    va_start(arguments, format);
    int const size = std::vsnprintf(line.data(), line.size(), format, arguments);
    va_end(arguments);
    MOX_ASSERT(size >= 0);
    auto const length = static_cast<std::size_t>(size);
    if (length < line.size())
        return context->write({line.data(), length});

    std::string text(length + 1, '\0'); // vsnprintf ends with a NUL of its own
    va_start(arguments, format);
    std::vsnprintf(text.data(), text.size(), format, arguments);
    va_end(arguments);
    context->write({text.data(), length});
}

Mox::Ptr<StringDumpContext> StringDumpContext::StringDumpContextIs() { return new StringDumpContext; }

Mox::Ptr<StreamDumpContext> StreamDumpContext::StreamDumpContextIs(std::ostream& stream) {
    return new StreamDumpContext(stream);
}

void StreamDumpContext::write(std::string_view text) const { stream_ << text; }

} // namespace Kel
