#pragma once

#include <mox/Ptr.h>

#include <iosfwd>
#include <string>
#include <string_view>

namespace Kel {

class DumpContext;

/// Prints as printf does into the sink: the only way in. Texts of any length are printed whole.
[[gnu::format(printf, 2, 3)]] MOX_EXPORT void objDumpPrintf(Mox::Ptr<DumpContext const> const& context,
                                                            char const* format, ...);

/// A sink for printed reports. A sink that takes what it is given is written to by const reference: printing
/// changes the reader's copy, not the context.
class MOX_EXPORT DumpContext : public Mox::PtrInterface {
  public:
    Mox::Type const* fwkType() const override;
    static Mox::Type const& type();

  protected:
    DumpContext() = default;

  private:
    friend void objDumpPrintf(Mox::Ptr<DumpContext const> const& context, char const* format, ...);
    virtual void write(std::string_view text) const = 0;
};

/// Collects what is printed in a string.
class MOX_EXPORT StringDumpContext : public DumpContext {
  public:
    static Mox::Ptr<StringDumpContext> StringDumpContextIs();
    std::string const& text() const { return text_; }

  private:
    StringDumpContext() = default;
    void write(std::string_view text) const override { text_ += text; }

    mutable std::string text_;
};

/// Prints to a stream, which must outlive the context.
class MOX_EXPORT StreamDumpContext : public DumpContext {
  public:
    static Mox::Ptr<StreamDumpContext> StreamDumpContextIs(std::ostream& stream);

  private:
    explicit StreamDumpContext(std::ostream& stream) : stream_(stream) {}
    void write(std::string_view text) const override;

    std::ostream& stream_;
};

} // namespace Kel
