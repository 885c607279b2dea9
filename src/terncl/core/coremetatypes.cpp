#include "abstracterror.h"
#include "qtstringspairvector.h"

#include <QCoreApplication>

namespace {
// Types of the core that travel in queued signals or are looked up by name.
void registerCoreMetaTypes() {
    qRegisterMetaType<AbstractError>("AbstractError");
    qRegisterMetaType<QtStringsPairVector>("QtStringsPairVector");
}
} // namespace

Q_COREAPP_STARTUP_FUNCTION(registerCoreMetaTypes)
