#include "FilterParameters.h"

#include <ace/ARGV.h>

#include "DiscLog.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

namespace {

constexpr const char* LOG_SOURCE = "../FilterParameters";

constexpr const char* TAG_DOCUMENT = "FilterParameters";
constexpr const char* TAG_QUERY_STRING = "QueryString";
constexpr const char* TAG_JOB = "JobExecInfo";

/// The caller gets the creator's reference.
JobExecInfo* jobFromCommandLine(const TlxString& line)
{
    // What another host wrote is not given this process's environment to look into.
    constexpr bool WITH_ENVIRONMENT = false;
    ACE_ARGV splitter(line.c_str(), WITH_ENVIRONMENT);
    int count = splitter.argc();
    ACE_Arg_Shifter arguments(count, splitter.argv());
    AutoDereference<JobExecInfo> job(new JobExecInfo);
    job->setValue(arguments, false);
    return job.release();
}

} // namespace

FilterParameters::FilterParameters(const JobExecInfo* job, const char* query)
    : XmlDocumentInterface(nullptr, TAG_DOCUMENT), m_queryString(query),
      m_job(AutoDereference<const JobExecInfo>::share(job))
{
}

FilterParameters::FilterParameters(const char* xml) : XmlDocumentInterface(nullptr, TAG_DOCUMENT)
{
    if (!xml || !*xml || parseBuffer(xml))
        return;
    // Half a document is none.
    m_queryString.clear();
    m_job.reset();
}

FilterParameters::~FilterParameters() = default;

FilterParametersContext::~FilterParametersContext() = default;

bool FilterParameters::setQuery(TlxQuery& query) const
{
    DISC_TRACE("FilterParameters::setQuery");
    query.setJob(m_job.get());
    return query.setQuery(m_queryString);
}

std::ostream& FilterParameters::writeXml(std::ostream& out, XmlStr::Encoding encoding) const
{
    DISC_TRACE("FilterParameters::writeXml");
    if (m_queryString.empty())
        return out;
    XmlStr::xmlProlog(out, encoding);
    XmlStr::appendStart(out, TAG_DOCUMENT);
    XmlStr::appendElement(out, TAG_QUERY_STRING, m_queryString, encoding);
    if (m_job)
        XmlStr::appendElement(out, TAG_JOB, m_job->getCommandLine(), encoding);
    return XmlStr::appendEnd(out, TAG_DOCUMENT);
}

XmlObjParseContext* FilterParameters::getObjParseContext(const XMLCh* name)
{
    DISC_TRACE("FilterParameters::getObjParseContext");
    return new FilterParametersContext(name);
}

void FilterParameters::xmlStartElement(XmlObjParseContext* context, const XMLCh* name,
                                       AttributeList& attributes)
{
    DISC_TRACE("FilterParameters::xmlStartElement");
    auto* ctxt = dynamic_cast<FilterParametersContext*>(context);
    if (!TLX_ASSERT(ctxt))
        return;
    using Context = FilterParametersContext;
    if (!ctxt->isSkipping() && ctxt->m_state == Context::Before) {
        ctxt->m_state = Context::Document;
        return;
    }
    if (!ctxt->isSkipping() && ctxt->m_state == Context::Document) {
        ctxt->clearText();
        if (Context::cmptag(name, TAG_QUERY_STRING))
            ctxt->m_state = Context::QueryString;
        else if (Context::cmptag(name, TAG_JOB))
            ctxt->m_state = Context::Job;
        if (ctxt->m_state != Context::Document)
            return;
    }
    XmlInterface::xmlStartElement(ctxt, name, attributes); // unknown: skipped whole
}

int FilterParameters::xmlEndElement(XmlObjParseContext* context, const XMLCh*)
{
    DISC_TRACE("FilterParameters::xmlEndElement");
    auto* ctxt = dynamic_cast<FilterParametersContext*>(context);
    if (!TLX_ASSERT(ctxt))
        return XML_COMPLETE;
    switch (ctxt->m_state) {
    case FilterParametersContext::QueryString:
        m_queryString = ctxt->text();
        break;
    case FilterParametersContext::Job:
        m_job.reset(jobFromCommandLine(ctxt->text()));
        break;
    default:
        return XML_COMPLETE;
    }
    ctxt->m_state = FilterParametersContext::Document;
    return XML_INSIDE;
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
