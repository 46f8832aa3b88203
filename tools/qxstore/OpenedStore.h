// A store that is only looked at.
#pragma once

#include "qxLss/src/FileIo.h"
#include "qxLss/src/LssStore.h"
#include "qxUtils/AutoCloser.h"
#include "qxUtils/BasicTypes.h"

#include <string>

namespace quna::qxstore {

// Opens the file read-only, under a shared lock: nothing of it changes, however damaged it is, and no process can write
// to it meanwhile.
//
// Ownership: owns the open store.
class OpenedStore {
public:
    // Throws ToolError, which says what is wrong with the file and what can be done.
    explicit OpenedStore(const std::string& path);

    const std::string& Path() const { return m_path; }
    LssStore& Lss() { return *m_lss; }
    StoreCore& Core() { return m_lss->CoreForTest(); }
    const SegmentTable& Segments() { return *Core().m_segments; }
    ssize_t NumSlots() { return m_lss->SpaceForTest().NumSlots(); }
    LssStats Stats();

    // The newest checkpoint, from which opening rolls forward.
    const CheckpointHeader& Header() const { return m_header; }
    // False after a crash: the last transactions were found in the log.
    bool WasClosedCleanly() const { return m_closedCleanly; }
    int64 FileBytes() const { return m_fileBytes; }

    bool Exists(Seid seid) { return m_lss->IndexForTest().Get(seid) != 0; }
    // Calls use(ReadOnlyBuffer) with the element's bytes; false if there is none. Throws CorruptLSSException or
    // FileException when it can't be read.
    template <class Use>
    bool WithElement(Seid seid, Use&& use) {
        AutoCloser<IContiguousSerialElement> element(m_lss->OpenSerialElement(seid));
        if (!element) return false;
        use(element->GetBuffer());
        return true;
    }

private:
    void CheckFile();
    void CheckFormat();
    void OpenLss();

    const std::string m_path;
    File m_file; // has the shared lock from the first look on
    CheckpointHeader m_header{};
    bool m_closedCleanly = false;
    int64 m_fileBytes = 0;
    LssStore* m_lss = nullptr;
    AutoCloser<ILogStructuredStore> m_closer{nullptr}; // of m_lss
};

} // namespace quna::qxstore
