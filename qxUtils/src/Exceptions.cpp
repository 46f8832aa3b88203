#include "qxUtils/Exceptions.h"

#include "qxUtils/Assert.h"
#include "qxUtils/xostream.h"
#include "qxUtils/xstring.h"

namespace quna {

namespace {

std::shared_ptr<const std::string> Share(ConstStringZ text) {
    return std::make_shared<const std::string>(text ? text : "");
}

std::string AssertionMessage(const char* text, const char* path, int line) {
    return std::string("Assertion failed: ") + text + " (" + path + ":" + std::to_string(line) + ")";
}

} // namespace

IException::~IException() = default;

const char* IException::what() const noexcept { return m_what ? m_what->c_str() : "quna::IException"; }

void IException::ComposeWhat() noexcept {
    try {
        StringStream os(256);
        Write(os);
        xstring text;
        os.GetString(text, false);
        m_what = Share(text.c_str());
    } catch (...) {
        // Write's failure belongs to the caller of Write; what() keeps its fixed text.
        m_what.reset();
    }
}

ExceptionBase::ExceptionBase(ConstStringZ message) : m_message(Share(message)) { ComposeWhat(); }

void ExceptionBase::Write(xostream& os) const { os << m_message->c_str(); }

QunaAssertionError::QunaAssertionError(const char* text, const char* path, int line)
    : ExceptionBase(AssertionMessage(text, path, line).c_str()), m_text(Share(text)), m_path(Share(path)),
      m_line(line) {}

FileException::FileException(ConstStringZ message, int systemError) : ExceptionBase(message), m_errno(systemError) {}

RecordException::RecordException(ConstStringZ message) : ExceptionBase(message) {}

SchemaException::SchemaException(ConstStringZ message) : RecordException(message) {}

void ThrowQunaAssertionError(const char* text, const char* path, int line) {
    throw QunaAssertionError(text, path, line);
}

} // namespace quna
