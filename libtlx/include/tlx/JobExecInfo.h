#pragma once
// A job that sends a request.

#include <string>
#include <vector>

#include <ace/Arg_Shifter.h>

#include <tlx/RefCounted.h>
#include <tlx/String.h>

namespace Veltrane::Quillmark::Tlx {

/// A job, described by its command-line arguments. Reference-counted. Share it only
/// when nobody changes it any more. No operation fails.
class JobExecInfo : public virtual TLXRefCounted
{
  public:
    JobExecInfo() = default;
    explicit JobExecInfo(std::vector<std::string> arguments);

    /// The arguments as one line. ACE_ARGV makes the same arguments from it, unless it replaces
    /// environment variables. An argument ends at its first NUL.
    TlxString getCommandLine() const;

    /// Takes all remaining arguments from the shifter. @param append true: adds them to this job's
    /// arguments; false: replaces this job's arguments.
    void setValue(ACE_Arg_Shifter& arguments, bool append);

    const std::vector<std::string>& arguments() const { return m_arguments; }

  private:
    std::vector<std::string> m_arguments;
};

} // namespace Veltrane::Quillmark::Tlx
