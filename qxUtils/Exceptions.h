// The bases of all exceptions of the library.
//
// An exception is thrown by value and caught by reference to IException, whose Write gives the text. Each is a
// std::exception as well; what() gives the same text, composed when the exception was constructed.
#pragma once

#include "qxUtils/BasicTypes.h"
#include "qxUtils/Export.h"

#include <exception>
#include <memory>
#include <string>

namespace quna {

class xostream;

// Abstract base. A derived class holds its own fields and composes its text in Write: no trailing newline, no class
// name.
class QX_API IException : public std::exception {
public:
    IException() = default;
    IException(const IException&) = default;
    IException& operator=(const IException&) = default;
    ~IException() override;

    virtual void Write(xostream& os) const = 0;

    // The text of Write as it was at construction; never throws. A class that does not call ComposeWhat, or whose
    // Write failed then, gives a fixed text.
    const char* what() const noexcept override;

protected:
    // The last act of every derived class's constructor that is `final` in what it writes: keeps Write's text for
    // what(). Swallows any failure of Write, which then shows itself where Write is called.
    void ComposeWhat() noexcept;

private:
    std::shared_ptr<const std::string> m_what; // shared, so that copying never throws
};

// An exception that carries a finished message, which Write gives back unchanged.
class QX_API ExceptionBase : public IException {
public:
    explicit ExceptionBase(ConstStringZ message);
    void Write(xostream& os) const override;
    ConstStringZ GetMessage() const noexcept { return m_message->c_str(); }

private:
    std::shared_ptr<const std::string> m_message;
};

// A failed assertion: the condition's text, the path of the source and the line. Its text is
// "Assertion failed: TEXT (PATH:LINE)".
class QX_API QunaAssertionError : public ExceptionBase {
public:
    QunaAssertionError(const char* text, const char* path, int line);
    ConstStringZ GetText() const noexcept { return m_text->c_str(); }
    ConstStringZ GetPath() const noexcept { return m_path->c_str(); }
    int GetLine() const noexcept { return m_line; }

private:
    std::shared_ptr<const std::string> m_text;
    std::shared_ptr<const std::string> m_path;
    int m_line;
};

// A failed file operation. The message says what was attempted, on which path and offset, and what was found;
// GetErrno is the system's error number, 0 when no system call failed.
class QX_API FileException : public ExceptionBase {
public:
    explicit FileException(ConstStringZ message, int systemError = 0);
    int GetErrno() const noexcept { return m_errno; }

private:
    int m_errno;
};

// A record that is not what its reader expects: a count or a length beyond the record's end, a value that opens no
// variable-length integer, a schema from the future. The message says what was found and what was expected.
class QX_API RecordException : public ExceptionBase {
public:
    explicit RecordException(ConstStringZ message);
};

// A record whose schema this library does not know. The message names both numbers.
class QX_API SchemaException : public RecordException {
public:
    explicit SchemaException(ConstStringZ message);
};

} // namespace quna
