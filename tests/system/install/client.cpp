#include "qxPersistStore/IPersistStore.h"

int main(int, char** argv) {
    Register_Project_qxPersistStore();
    quna::Close(quna::OpenPersistStore(argv[1], quna::OM_CREATE_NEW, quna::PersistStoreSettings()));
}
