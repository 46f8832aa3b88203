// What an application may choose when it opens a store.
#pragma once

#include "qxLss/LssSettings.h"
#include "qxPersistStore/ClassNameTranslation.h"
#include "qxUtils/BasicTypes.h"

namespace quna {

// Passed by const reference and not kept: strings and the table need to live only until the open returns.
struct PersistStoreSettings {
    // Where the store archives its log (docs/archive.md); null or empty: no archive.
    ConstStringZ deltasDirPath = nullptr;
    LssSettings lssSettings;
    // Renames persisted classes while an existing store is opened; ignored for a new one. Null: none.
    const ClassNameTranslationTable* translationTable = nullptr;
    // True: the writer thread starts with the store. False: nothing is written in the background, neither changes nor
    // deletions, until StartObjectDeletion; spaces still write when they close or are asked to.
    bool startObjectDeletion = true;

    ConstStringZ GetdeltasDirPath() const { return deltasDirPath; }
    void SetdeltasDirPath(ConstStringZ x) { deltasDirPath = x; }
    const LssSettings& GetlssSettings() const { return lssSettings; }
    void SetlssSettings(const LssSettings& x) { lssSettings = x; }
    const ClassNameTranslationTable* GettranslationTable() const { return translationTable; }
    void SettranslationTable(const ClassNameTranslationTable* x) { translationTable = x; }
    bool GetstartObjectDeletion() const { return startObjectDeletion; }
    void SetstartObjectDeletion(bool x) { startObjectDeletion = x; }
};

} // namespace quna
