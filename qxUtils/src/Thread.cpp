#include "qxUtils/Thread.h"

#include <string>

#include <pthread.h>

namespace quna {

namespace {

constexpr std::size_t MAX_SYSTEM_NAME_LENGTH = 15; // characters

std::string& ThreadName() {
    thread_local std::string name;
    return name;
}

} // namespace

void SetThreadName(const char* name) {
    std::string& threadName = ThreadName();
    threadName = name;
    ::pthread_setname_np(::pthread_self(), threadName.substr(0, MAX_SYSTEM_NAME_LENGTH).c_str());
}

ConstStringZ GetThreadName() { return ThreadName().c_str(); }

} // namespace quna
