#include <mox/detail/FieldText.h>

#include <mox/detail/StrepCursor.h>

#include <algorithm>
#include <vector>

namespace Mox {

AttributeWriter::AttributeWriter(std::string const& typeName)
    : text_("Value(" + valueToStrep(typeName) + ", ** {") {}

void AttributeWriter::writeText(std::string_view name, String const& value) {
    text_.append(separator_).append(valueToStrep(name)).append(": ").append(value);
    separator_ = ", ";
}

namespace {

/// Reads the forms of one type.
class ValueReader {
  public:
    ValueReader(String::IteratorConst const& position, String::IteratorConst const& end,
                std::string const& typeName)
        : cursor_(position, end), typeName_(typeName), shortName_(typeName.substr(typeName.rfind(':') + 1)) {}

    /// Where the form ends.
    String::IteratorConst read(AttributeReader const& readAttribute) try {
        readTypeName();
        cursor_.expect("{");
        if (!cursor_.accept("}")) {
            do
                readOne(readAttribute);
            while (cursor_.accept(","));
            cursor_.expect("}");
        }
        cursor_.expect(")");
        return cursor_.position();
    } catch (PrematureEnd const&) {
        throw RangeException("premature end of value type " + shortName_);
    }

  private:
    void readTypeName() {
        String name;
        cursor_.expect("Value");
        cursor_.expect("(");
        cursor_.read(&name);
        if (name != typeName_)
            throw RangeException("expected a " + typeName_ + ", not a " + name);
        cursor_.expect(",");
        cursor_.expect("**");
    }

    /// The blanks before a value are read here, so that a text cut there is this form's premature end and not
    /// that of the value's type.
    void readOne(AttributeReader const& readAttribute) {
        String name;
        cursor_.read(&name);
        cursor_.expect(":");
        if (std::ranges::find(names_, name) != names_.end())
            throw RangeException(shortName_ + " has this attribute already: " + name);
        cursor_.rest();
        String::IteratorConst position = cursor_.position();
        if (!readAttribute(name, position))
            throw RangeException(shortName_ + " has no such attribute: " + name);
        cursor_.skip(position - cursor_.position());
        names_.push_back(std::move(name));
    }

    StrepCursor cursor_;
    std::string const& typeName_;
    std::string shortName_; // without the scopes around it
    std::vector<String> names_;
};

} // namespace

void readAttributes(String::IteratorConst& position, String::IteratorConst const& end,
                    std::string const& typeName, AttributeReader const& readAttribute) {
    position = ValueReader(position, end, typeName).read(readAttribute);
}

} // namespace Mox
