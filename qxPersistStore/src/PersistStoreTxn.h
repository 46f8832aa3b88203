// Which spaces an application works on together.
#pragma once

#include "qxPersistStore/IPersistStore.h"
#include "qxUtils/Export.h"
#include "qxUtils/xdeque.h"
#include "qxUtils/xvector.h"

namespace quna {

// Checks that the caller holds the locks that it names and, for a writer, ties the spaces into one group, so that all
// that they change reaches the disk together. Has nothing to roll back and writes nothing itself.
//
// The locks of the given spaces are the caller's, before and after; those of spaces opened here are taken here and
// released by Close.
// Threads: used by the thread that made it.
class QX_API PersistStoreTxn {
public:
    PersistStoreTxn(PersistStore* ps, PSpaceLockMode* L, ssize_t n);
    PersistStoreTxn(const PersistStoreTxn&) = delete;
    PersistStoreTxn& operator=(const PersistStoreTxn&) = delete;

    void Close();
    PersistStore* GetPersistStore() const { return m_ps; }
    PSpace* OpenPSpace(ConstStringZ name, EOpenMode openMode, CSpace* cspace);
    void TransferPSpace(PSpace* dst, PSpace* src);
    bool DestroyPSpace(ConstStringZ name);

private:
    ~PersistStoreTxn() = default; // by Close

    void OnOpenPSpace(PSpace* p);
    void Merge(PSpace* p1, PSpace* p2);
    void TieWhatHasChanges();

    PersistStore* m_ps;
    bool m_haveWriteAccess = false; // the members have been merged for writing
    xvector<PSpaceLockMode> m_pspaces;
    xdeque<PSpace*, 512> m_openedPSpaces; // in order of opening
};

QX_API const ReflectedClass& _GetReflected(const PersistStoreTxn*);

} // namespace quna
