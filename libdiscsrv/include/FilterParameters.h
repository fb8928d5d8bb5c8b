#pragma once
// The filter that travels to a pull explorer, as the text that collection data is opened with.
//
//     <FilterParameters>
//       <QueryString>size &gt; 10G</QueryString>
//       <JobExecInfo>backup --level &quot;full now&quot;</JobExecInfo>
//     </FilterParameters>
//
// after an XML declaration and without the white space; "JobExecInfo" only when a job is known.

#include <tlx/JobExecInfo.h>
#include <tlx/Query.h>
#include <tlx/RefCounted.h>
#include <tlx/String.h>
#include <tlx/Xml.h>

#include "DiscExport.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

/// A query string and the job that asks. Used by one thread at a time; once it changes no more, any
/// number may write it or set queries from it.
class DISCSRV_EXPORT FilterParameters : public XmlDocumentInterface
{
  public:
    /// @param job may be null; a reference of this object's own is kept.
    /// @param query null for none.
    FilterParameters(const JobExecInfo* job, const char* query);
    /// Reads the document. One that cannot be read leaves the parameters empty; why is the XML
    /// reader's log line. No text (empty or null) is no filter, and no failure.
    explicit FilterParameters(const char* xml);
    ~FilterParameters() override;

    /// Hands the job and the query string over; answers whether the string is a query
    /// (TlxQuery::setQuery).
    bool setQuery(TlxQuery& query) const;

    const TlxString& queryString() const { return m_queryString; }
    /// Null when there is none; it stays this object's.
    const JobExecInfo* job() const { return m_job.get(); }

    /// Writes the document; nothing at all when the query string is empty.
    std::ostream& writeXml(std::ostream& out, XmlStr::Encoding encoding) const override;

    XmlObjParseContext* getObjParseContext(const XMLCh* name) override;
    void xmlStartElement(XmlObjParseContext* context, const XMLCh* name,
                         AttributeList& attributes) override;
    int xmlEndElement(XmlObjParseContext* context, const XMLCh* name) override;

  private:
    TlxString m_queryString;
    AutoDereference<const JobExecInfo> m_job;
};

/// Where a parse of the document is.
class DISCSRV_EXPORT FilterParametersContext : public XmlObjParseContext
{
  public:
    enum State : int
    {
        Before = 0,
        Document = 1,
        QueryString = 2,
        Job = 3
    };

    using XmlObjParseContext::XmlObjParseContext;
    ~FilterParametersContext() override;

    int m_state = Before;
};

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
