#include "ConfigText.h"

#include <algorithm>
#include <string_view>

#include <tlx/Text.h>
#include <tlx/Utf8.h>

#include "ConfigValue.h"

namespace Veltrane::Quillmark::Tlx {

void DeclaredKeys::add(ConfigKeyTable table)
{
    for (const DeclaredKey& key : table)
        if (!find(key.name()))
            m_keys.push_back(&key);
}

const DeclaredKey* DeclaredKeys::find(const std::string& written) const
{
    const auto found = std::find_if(m_keys.begin(), m_keys.end(),
                                    [&](const DeclaredKey* key) { return key->covers(written); });
    return found == m_keys.end() ? nullptr : *found;
}

namespace {

constexpr std::string_view BYTE_ORDER_MARK = "\xef\xbb\xbf"; // some editors put it first

constexpr std::string_view BLANKS = " \t";

bool hasControlCharacter(std::string_view text)
{
    return std::any_of(text.begin(), text.end(), [](char c) {
        const auto byte = static_cast<unsigned char>(c);
        return (byte < 0x20 && c != '\t') || byte == 0x7f;
    });
}

/// Removes the first line, with its end, from the text.
std::string_view takeFirstLine(std::string_view& text)
{
    const auto end = text.find('\n');
    std::string_view line = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    if (line.ends_with('\r'))
        line.remove_suffix(1);
    return line;
}

/// Takes over the assignments of one text, line by line.
class Reader
{
  public:
    Reader(const std::string& name, const DeclaredKeys& keys) : m_name(name), m_keys(keys) {}

    void read(std::string_view text)
    {
        for (unsigned number = 1; !text.empty(); ++number) {
            const std::string_view line = takeFirstLine(text);
            addProblem(number, takeLine(line, m_name + ":" + std::to_string(number)));
        }
    }
    ConfigText result() { return std::move(m_result); }

  private:
    /// Returns the mistake in the line, empty for a good line.
    std::string takeLine(std::string_view line, const std::string& place)
    {
        const std::string_view content = trimmed(line, BLANKS);
        if (line.size() <= CONFIG_MAX_LINE && (content.empty() || content.front() == '#'))
            return {};
        const auto equals = content.find('=');
        const std::string written(trimmed(content.substr(0, equals), BLANKS));
        if (std::string wrong = unreadable(line, content, equals); !wrong.empty()) {
            const DeclaredKey* const key = m_keys.find(written);
            if (key && key->keepsMistakes())
                m_result.values[written] = {"", place};
            return wrong;
        }
        return takeValue(written,
                         {std::string(trimmed(content.substr(equals + 1), BLANKS)), place});
    }

    /// What is wrong with a line as a whole, empty if it is KEY = value.
    static std::string unreadable(std::string_view line, std::string_view content,
                                  std::size_t equals)
    {
        if (line.size() > CONFIG_MAX_LINE)
            return "the line is longer than " + std::to_string(CONFIG_MAX_LINE) + " bytes";
        if (hasControlCharacter(content))
            return "the line holds a control character, expected KEY = value";
        if (!isUtf8(content))
            return "the line is not UTF-8 text, expected KEY = value";
        if (equals == std::string_view::npos)
            return quotedValue(content) + " is not KEY = value";
        return {};
    }

    std::string takeValue(const std::string& written, ConfigText::Value value)
    {
        const DeclaredKey* const key = m_keys.find(written);
        if (!key) {
            m_result.values[written] = std::move(value);
            return "unknown key " + quotedValue(written);
        }
        const std::string name = key->keptName(written);
        const std::string wrong = key->complaintAbout(written, value.text);
        if (wrong.empty() || key->keepsMistakes()) {
            m_result.values[name] = std::move(value);
            return wrong.empty() ? wrong : name + ": " + wrong;
        }
        // The last line with a key counts, even if its value is refused. Then the key gets its
        // default.
        m_result.values.erase(name);
        return name + ": " + wrong;
    }

    void addProblem(unsigned number, const std::string& wrong)
    {
        auto& problems = m_result.problems;
        if (wrong.empty() || problems.size() > CONFIG_MAX_PROBLEMS)
            return;
        if (problems.size() == CONFIG_MAX_PROBLEMS)
            problems.push_back({m_name, number, "there are more problems, not shown"});
        else
            problems.push_back({m_name, number, wrong});
    }

    const std::string& m_name;
    const DeclaredKeys& m_keys;
    ConfigText m_result;
};

} // namespace

ConfigText parseConfigText(const std::string& text, const std::string& name,
                           const DeclaredKeys& keys)
{
    std::string_view content = text;
    if (content.starts_with(BYTE_ORDER_MARK))
        content.remove_prefix(BYTE_ORDER_MARK.size());
    if (content.size() > CONFIG_MAX_BYTES) {
        ConfigText nothing;
        nothing.problems.push_back(
            {name, 0,
             "the file is larger than " + std::to_string(CONFIG_MAX_BYTES) + " bytes, ignored"});
        return nothing;
    }
    Reader reader(name, keys);
    reader.read(content);
    return reader.result();
}

} // namespace Veltrane::Quillmark::Tlx
