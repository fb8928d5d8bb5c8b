#pragma once
// Queries about discovered items, and descriptions of the possible queries.
//
// A TlxQuery holds one of these, or both:
//
//   - an expression that a person wrote, such as
//         fstype = "ext4" and size > 10G and not readonly
//     An item matches it or not. docs/filters.md explains the language.
//   - a description: the fields that an expression may ask about.
//
// As XML, without the white space:
//
//     <QueryDescription>
//       <Query>size &gt; 10G</Query>
//       <Field Name="size" Type="bytes">
//         <Description>how much it can hold</Description>
//         <Value>...</Value>
//       </Field>
//     </QueryDescription>
//
// "Query", "Description" and "Value" are left out when they would be empty. A query that is written
// and read again is equal to the first one.
//
// Nothing here throws. One thread at a time uses an object. Once nobody changes it any more, any
// number of threads may read it.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <tl/expected.hpp>
#include <tlx/JobExecInfo.h>
#include <tlx/RefCounted.h>
#include <tlx/String.h>
#include <tlx/Xml.h>

namespace Veltrane::Quillmark::Tlx {

/// The most bytes of an expression's text.
constexpr std::size_t QUERY_MAX_LENGTH = 65536;
/// The most parentheses and "not" inside one another.
constexpr std::size_t QUERY_MAX_DEPTH = 100;
/// The most fields of a description.
constexpr std::size_t QUERY_MAX_FIELDS = 256;
/// The most values that a field lists.
constexpr std::size_t QUERY_MAX_VALUES = 256;
/// The most bytes of a field's name.
constexpr std::size_t QUERY_MAX_NAME = 64;
/// The most bytes of a field's description, and of each of its values.
constexpr std::size_t QUERY_MAX_TEXT = 1024;

/// Numbers of expressions and fields. The type holds every unsigned 64-bit integer exactly.
using QueryNumber = long double;

enum QueryFieldType
{
    QF_TEXT = 0,
    QF_NUMBER = 1, ///< a plain number
    QF_BYTES = 2,  ///< a number of bytes
    QF_FLAG = 3    ///< true or false
};

/// "text", "number", "bytes" or "flag".
const char* toText(QueryFieldType type);

/// A field that a query can ask about.
struct QueryField
{
    TlxString name = {}; ///< see TlxQuery::isFieldName; in any case of its letters
    QueryFieldType type = QF_TEXT;
    TlxString description = {}; ///< for people
    /// The values that it takes. Empty when it takes any value.
    std::vector<TlxString> values = {};

    friend bool operator==(const QueryField&, const QueryField&) = default;
};

/// The value of an item's field.
class QueryValue
{
  public:
    enum Kind
    {
        QV_MISSING,
        QV_TEXT,
        QV_NUMBER,
        QV_FLAG
    };

    /// A field that the item does not have.
    QueryValue() = default;
    static QueryValue text(TlxString text);
    static QueryValue number(std::uint64_t number);
    static QueryValue flag(bool flag);

    Kind kind() const { return m_kind; }
    /// The value, if it is of that kind; otherwise empty, 0 or false.
    const TlxString& asText() const { return m_text; }
    QueryNumber asNumber() const { return m_number; }
    bool asFlag() const { return m_flag; }

  private:
    Kind m_kind = QV_MISSING;
    TlxString m_text;
    QueryNumber m_number = 0;
    bool m_flag = false;
};

/// An item that a query can ask about.
class QuerySource
{
  public:
    /// @param field the name in lower-case letters.
    virtual QueryValue valueOf(const std::string& field) const = 0;
    virtual ~QuerySource() = default;
};

/// Why an expression was refused.
struct QueryMistake
{
    std::size_t column = 0; ///< in characters, from 1; 0 when there is no mistake
    std::string text = {};

    /// For instance "column 8: expected a value, found the end of the text"; empty when there is no
    /// mistake.
    std::string toText() const;
    friend bool operator==(const QueryMistake&, const QueryMistake&) = default;
};

class QueryExpression;
class QueryLosses;

/// Reference-counted. Share it only when nobody changes it any more.
class TlxQuery : public virtual TLXRefCounted, public XmlInterface
{
  public:
    /// The root element of the XML form.
    static constexpr const char* QUERY_DESCRIPTION_TAG = "QueryDescription";

    /// An empty query. @param flags reserved, 0.
    explicit TlxQuery(int flags = 0);
    TlxQuery(const TlxQuery&) = default;
    TlxQuery& operator=(const TlxQuery&) = default;
    ~TlxQuery() override;

    // Asking.

    /// Replaces the expression. A text of white space alone removes it, so that every item matches.
    /// @return false if the text is not an expression. Then mistake has the reason, and the query
    /// keeps its old expression.
    bool setQuery(const TlxString& text);
    /// The expression as a person wrote it; empty without an expression.
    const TlxString& query() const { return m_query; }
    /// The mistake that the last setQuery found.
    const QueryMistake& mistake() const { return m_mistake; }

    /// Whether the item matches the expression. Without an expression every item matches. The time
    /// grows in proportion to the expression's length, and to the length of the texts that "like"
    /// compares.
    ///
    /// The item's value decides the comparison:
    ///   - a text compares with the literal as it is written, byte by byte;
    ///   - a number compares with numbers only;
    ///   - a flag compares with true and false only, with "=" and "!=";
    ///   - "like" compares a text with a pattern (tlx/Wildcard.h).
    /// Every other comparison is false, even with "!=". A comparison of a missing field is false,
    /// too. "not" turns that into true. A field without a comparison is true when it is a true
    /// flag.
    bool matches(const QuerySource& item) const;

    /// Sets the job that asks; null for an unknown one. The query keeps a reference of its own.
    void setJob(const JobExecInfo* job) { m_job.refObject(job); }
    const JobExecInfo* job() const { return m_job.get(); }

    // Describing.

    /// Whether a text can be a field's name: a letter or "_", then letters, digits, "_", "-" and
    /// ".", all of ASCII. A keyword of the language is not a name.
    static bool isFieldName(std::string_view name);

    /// Adds a field that a query can ask about. A field of that name, in any case of its letters,
    /// is merged with the new one:
    ///   - Bytes and numbers become numbers. Other types that differ become texts, because every
    ///     value has a text form.
    ///   - The first name stays, and the first description that is not empty.
    ///   - The field takes the values of both. It takes any value when one of them does, or when
    ///     they list too many together.
    /// Characters that XML cannot carry become U+FFFD.
    /// Returns false, and changes nothing, if isFieldName refuses the name or a bound above would
    /// be exceeded.
    bool addField(const QueryField& field);
    /// The same, with the reason.
    [[nodiscard]] tl::expected<void, std::string> addFieldOrReason(const QueryField& field);
    /// The fields, in the order in which they were added.
    const std::vector<QueryField>& fields() const { return m_fields; }
    /// The field of that name, in any case of its letters; null when it is unknown.
    const QueryField* field(std::string_view name) const;

    /// Adds the fields of another query, not its expression and job. Leaves out the fields above
    /// QUERY_MAX_FIELDS; the first merge that does so logs a line at level 1.
    void merge(const TlxQuery& other);

    /// Whether there is neither an expression nor a description.
    bool isEmpty() const { return m_query.empty() && m_fields.empty(); }
    /// Equal queries have the same expression, letter by letter, and the same fields in the same
    /// order.
    friend bool operator==(const TlxQuery& a, const TlxQuery& b)
    {
        return a.m_query == b.m_query && a.m_fields == b.m_fields;
    }

    // XML. Pass a context that xmlCreateObject made.

    void xmlCharacters(XmlObjParseContext* context, const XMLCh* chars,
                       unsigned long length) override;
    void xmlStartElement(XmlObjParseContext* context, const XMLCh* name,
                         AttributeList& attributes) override;
    /// XML_NOTHING for a description with a wrong expression, because an answer to no question at
    /// all would mislead the person who asked. Leaves out a field that addField refuses. A field
    /// that lists more than QUERY_MAX_VALUES different values takes any value. Logs one line at
    /// level 1 for each description that lost something, with the numbers.
    int xmlEndElement(XmlObjParseContext* context, const XMLCh* name) override;
    std::ostream& writeXml(std::ostream& out, XmlStr::Encoding encoding) const override;

    /// Called for an unknown element inside the description, before the element is skipped with its
    /// content. Does nothing here. A derived class may read more elements with it.
    virtual void userOperation(const XMLCh* name, AttributeList& attributes);

  private:
    [[nodiscard]] tl::expected<void, std::string> addCarryable(const QueryField& added);
    void addFields(const std::vector<QueryField>& fields, QueryLosses& losses);

    TlxString m_query;
    std::shared_ptr<const QueryExpression> m_expression;
    QueryMistake m_mistake;
    std::vector<QueryField> m_fields;
    bool m_mergedWhole = true; ///< no merge has left anything out so far
    AutoDereference<const JobExecInfo> m_job;
};

/// Makes a TlxQuery from its start tag.
/// @param query receives the query, with the creator's reference.
/// @return the context for its content. The caller owns it.
XmlObjParseContext* xmlCreateObject(const XMLCh* name, AttributeList& attributes,
                                    const XmlObjParseContext* parent, TlxQuery*& query);

} // namespace Veltrane::Quillmark::Tlx
