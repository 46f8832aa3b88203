#include "tools/qxstore/Interrupt.h"

#include "tools/qxstore/ToolError.h"

#include <array>
#include <csignal>
#include <string_view>

#include <unistd.h>

namespace quna::qxstore {

namespace {

constexpr std::array SIGNALS = {SIGINT, SIGTERM, SIGHUP};

// What the handlers may touch.
volatile std::sig_atomic_t s_isInterrupted = 0;
volatile std::sig_atomic_t s_isTerminal = 0; // is standard error one?
const char* volatile s_partPath = nullptr;
std::array<struct sigaction, SIGNALS.size()> s_before{};

extern "C" void NoteInterrupt(int) { s_isInterrupted = 1; }

extern "C" void EndWithoutPart(int) {
    constexpr std::string_view CLEAR_LINE = "\r\x1b[K"; // of the progress bar
    constexpr std::string_view TEXT = "qxstore: Interrupted; nothing was left behind.\n";
    ::unlink(s_partPath);
    if (s_isTerminal && ::write(STDERR_FILENO, CLEAR_LINE.data(), CLEAR_LINE.size()) < 0) ::_exit(EXIT_INTERRUPTED);
    if (::write(STDERR_FILENO, TEXT.data(), TEXT.size()) < 0) ::_exit(EXIT_INTERRUPTED);
    ::_exit(EXIT_INTERRUPTED);
}

void TakeSignals(void (*handler)(int)) {
    s_isInterrupted = 0;
    struct sigaction action {};
    action.sa_handler = handler;
    action.sa_flags = static_cast<int>(SA_RESTART | SA_RESETHAND);
    for (size_t i = 0; i < SIGNALS.size(); ++i) ::sigaction(SIGNALS[i], &action, &s_before[i]);
}

} // namespace

InterruptScope::InterruptScope() { TakeSignals(&NoteInterrupt); }

InterruptScope::InterruptScope(const std::string& partPath) : m_partPath(partPath) {
    s_partPath = m_partPath.c_str();
    s_isTerminal = ::isatty(STDERR_FILENO);
    TakeSignals(&EndWithoutPart);
}

InterruptScope::~InterruptScope() {
    for (size_t i = 0; i < SIGNALS.size(); ++i) ::sigaction(SIGNALS[i], &s_before[i], nullptr);
}

bool InterruptScope::WasInterrupted() const { return s_isInterrupted != 0; }

} // namespace quna::qxstore
