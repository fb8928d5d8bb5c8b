#pragma once
// The job on whose behalf something is asked.

#include <string>
#include <vector>

#include <ace/Arg_Shifter.h>

#include <tlx/RefCounted.h>
#include <tlx/String.h>

namespace Veltrane::Quillmark::Tlx {

/// A job, told by the arguments that it was started with. Reference-counted; may be shared once
/// nobody changes it any more. Nothing fails.
class JobExecInfo : public virtual TLXRefCounted
{
  public:
    JobExecInfo() = default;
    explicit JobExecInfo(std::vector<std::string> arguments);

    /// The arguments as one line, from which ACE_ARGV makes the same arguments again (when it is
    /// told to leave environment variables alone). An argument's text ends at a NUL.
    TlxString getCommandLine() const;

    /// Consumes every argument that is left in the shifter. @param append whether they follow those
    /// held; otherwise they take their place.
    void setValue(ACE_Arg_Shifter& arguments, bool append);

    const std::vector<std::string>& arguments() const { return m_arguments; }

  private:
    std::vector<std::string> m_arguments;
};

} // namespace Veltrane::Quillmark::Tlx
