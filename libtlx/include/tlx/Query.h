#pragma once
// Queries: what somebody asks about discovered items, and what can be asked.
//
// A TlxQuery holds either or both of
//
//   - an expression that a person wrote, as
//         fstype = "ext4" and size > 10G and not readonly
//     which matches reads as a question about one item (the language: docs/filters.md);
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
// "Query", "Description" and "Value" are there when there is something to tell. What is written
// reads back equal.
//
// Nothing here throws. One object is used by one thread at a time; once it changes no more, any
// number of threads may ask it.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <tlx/JobExecInfo.h>
#include <tlx/RefCounted.h>
#include <tlx/String.h>
#include <tlx/Xml.h>

namespace Veltrane::Quillmark::Tlx {

/// An expression's text has at most so many bytes.
constexpr std::size_t QUERY_MAX_LENGTH = 65536;
/// Parentheses and "not" inside one another, at most.
constexpr std::size_t QUERY_MAX_DEPTH = 100;
/// A description tells of at most so many fields,
constexpr std::size_t QUERY_MAX_FIELDS = 256;
/// of each at most so many values,
constexpr std::size_t QUERY_MAX_VALUES = 256;
/// in a name of at most so many bytes,
constexpr std::size_t QUERY_MAX_NAME = 64;
/// a description and values of at most so many bytes each.
constexpr std::size_t QUERY_MAX_TEXT = 1024;

/// Numbers of expressions and fields. Every unsigned 64-bit integer is one, exactly.
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

/// A field that can be asked about.
struct QueryField
{
    TlxString name = {}; ///< see TlxQuery::addField; the case of its letters does not matter
    QueryFieldType type = QF_TEXT;
    TlxString description = {}; ///< for people
    /// The values it takes, where they can be listed; empty: any.
    std::vector<TlxString> values = {};

    friend bool operator==(const QueryField&, const QueryField&) = default;
};

/// What an item has in a field.
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
    /// The value of its kind; empty, 0 or false for another.
    const TlxString& asText() const { return m_text; }
    QueryNumber asNumber() const { return m_number; }
    bool asFlag() const { return m_flag; }

  private:
    Kind m_kind = QV_MISSING;
    TlxString m_text;
    QueryNumber m_number = 0;
    bool m_flag = false;
};

/// An item that can be asked about.
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

    /// "column 8: expected a value, found the end of the text"; empty when there is no mistake.
    std::string toText() const;
    friend bool operator==(const QueryMistake&, const QueryMistake&) = default;
};

class QueryExpression;
class QueryLosses;

/// Reference-counted; may be shared once nobody changes it any more.
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

    /// Takes an expression in place of the one held. A text of nothing but white space asks for
    /// nothing in particular. False, with the reason in mistake and everything else kept as it was,
    /// when the text is no expression.
    bool setQuery(const TlxString& text);
    /// The expression as it was written; empty when there is none.
    const TlxString& query() const { return m_query; }
    /// Of the last setQuery.
    const QueryMistake& mistake() const { return m_mistake; }

    /// Whether an item is what was asked for; without an expression every one is. Takes a number of
    /// steps in proportion to the expression's length (and to the length of the texts that "like"
    /// looks at).
    ///
    /// The item's value decides how it is compared: a text with the literal's own spelling, by its
    /// bytes; a number with a number; a flag with true or false, for equality alone. Every other
    /// comparison is false, "!=" as well, as is every comparison of a missing field; "not" turns
    /// that into true. "like" compares texts with a pattern (tlx/Wildcard.h). A field by itself is
    /// true when the item has it as a flag that is true.
    bool matches(const QuerySource& item) const;

    /// The fields that the expression asks about: in lower-case letters, sorted, each once.
    std::vector<std::string> fieldsAsked() const;

    /// The job that asks; null when unknown. A reference of this object's own is kept.
    void setJob(const JobExecInfo* job) { m_job.refObject(job); }
    const JobExecInfo* job() const { return m_job.get(); }

    // Describing.

    /// Whether a text can be a field's name: a letter or "_", then letters, digits, "_", "-" and
    /// ".", all of ASCII, and none of the language's own words.
    static bool isFieldName(std::string_view name);

    /// Adds a field that can be asked about. One that is there already, whatever the case of its
    /// letters, takes in what the new one tells:
    ///   - types that differ make a number of bytes and numbers, a text of all else (every value
    ///     can be spelled);
    ///   - the first name and the first description that is not empty stay;
    ///   - the values are those of both; when one of them takes any, or together they are too many,
    ///     any.
    /// Characters that XML cannot carry become U+FFFD. False, with nothing changed, when the name
    /// is no name or one of the bounds above would be exceeded.
    bool addField(const QueryField& field);
    /// The same. @param refused why it was not added; empty when it was.
    bool addField(const QueryField& field, std::string& refused);
    /// In the order in which they came.
    const std::vector<QueryField>& fields() const { return m_fields; }
    /// The field of that name, whatever the case of its letters; null when there is none.
    const QueryField* field(std::string_view name) const;

    /// Adds what can be asked with the other one; its expression and job are its own. Fields above
    /// QUERY_MAX_FIELDS are left out, the first time with a level-1 line.
    void merge(const TlxQuery& other);

    /// Neither an expression nor a description.
    bool isEmpty() const { return m_query.empty() && m_fields.empty(); }
    /// The same expression, to the letter, and the same fields in the same order.
    friend bool operator==(const TlxQuery& a, const TlxQuery& b)
    {
        return a.m_query == b.m_query && a.m_fields == b.m_fields;
    }

    // XML. The context is one that xmlCreateObject made.

    void xmlCharacters(XmlObjParseContext* context, const XMLCh* chars,
                       unsigned long length) override;
    void xmlStartElement(XmlObjParseContext* context, const XMLCh* name,
                         AttributeList& attributes) override;
    /// XML_NOTHING for a description whose expression is none: whoever asked this must not be
    /// answered as if nothing had been asked. A field that addField refuses is left out; one that
    /// lists more than QUERY_MAX_VALUES different values takes any. One level-1 line a description
    /// tells how many there were.
    int xmlEndElement(XmlObjParseContext* context, const XMLCh* name) override;
    std::ostream& writeXml(std::ostream& out, XmlStr::Encoding encoding) const override;

    /// An element inside the description that this class does not know, before it is skipped with
    /// all that is in it. Does nothing here; for classes that have more to tell.
    virtual void userOperation(const XMLCh* name, AttributeList& attributes);

  private:
    bool addTold(const QueryField& told, std::string& refused);
    void addFields(const std::vector<QueryField>& fields, QueryLosses& losses);

    TlxString m_query;
    std::shared_ptr<const QueryExpression> m_expression;
    QueryMistake m_mistake;
    std::vector<QueryField> m_fields;
    bool m_mergedWhole = true; ///< every merge until now left nothing out
    AutoDereference<const JobExecInfo> m_job;
};

/// Makes a TlxQuery from its start tag (the caller gets the creator's reference through query) and
/// answers the context for its content, which the caller owns.
XmlObjParseContext* xmlCreateObject(const XMLCh* name, AttributeList& attributes,
                                    const XmlObjParseContext* parent, TlxQuery*& query);

} // namespace Veltrane::Quillmark::Tlx
