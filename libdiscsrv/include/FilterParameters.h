#pragma once
// The filter for a pull explorer. It travels as the text that opens the collection data:
//
//     <FilterParameters>
//       <QueryString>size &gt; 10G</QueryString>
//       <JobExecInfo>backup --level &quot;full now&quot;</JobExecInfo>
//     </FilterParameters>
//
// An XML declaration comes first, and the white space between the elements is left out.
// "JobExecInfo" is written only for a known job.

#include <tlx/JobExecInfo.h>
#include <tlx/Query.h>
#include <tlx/RefCounted.h>
#include <tlx/String.h>
#include <tlx/Xml.h>

#include "DiscExport.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

/// A query string and the job that asks. One thread at a time may change it. Any number of threads
/// may use an object that does not change.
class DISCSRV_EXPORT FilterParameters : public XmlDocumentInterface
{
  public:
    /// @param job may be null. The object takes a reference.
    /// @param query may be null.
    FilterParameters(const JobExecInfo* job, const char* query);
    /// Reads the document. If that fails, the parameters are empty and the XML reader logs the
    /// reason. An empty or null text means no filter.
    explicit FilterParameters(const char* xml);
    ~FilterParameters() override;

    /// Sets the job and the query string of a query. Returns the result of TlxQuery::setQuery: true
    /// if the string is a query.
    bool setQuery(TlxQuery& query) const;

    const TlxString& queryString() const { return m_queryString; }
    /// The job, or null. This object stays its owner.
    const JobExecInfo* job() const { return m_job.get(); }

    /// Writes the document. Writes nothing if the query string is empty.
    std::ostream& writeXml(std::ostream& out, XmlStr::Encoding encoding) const override;

    XmlObjParseContext* getObjParseContext(const XMLCh* name) override;
    void xmlStartElement(XmlObjParseContext* context, const XMLCh* name,
                         AttributeList& attributes) override;
    int xmlEndElement(XmlObjParseContext* context, const XMLCh* name) override;

  private:
    TlxString m_queryString;
    AutoDereference<const JobExecInfo> m_job;
};

/// The state of a parse of the document.
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
