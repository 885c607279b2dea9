#include "abstractdataasyncprocessor.h"

AbstractDataAsyncProcessor::AbstractDataAsyncProcessor(QObject* parent)
    : QObject(parent) {}

AbstractDataAsyncProcessor::~AbstractDataAsyncProcessor() = default;

namespace {
// processData() is called queued across threads, so its argument type must be known by name.
void registerDataProcessorMetaTypes() {
    qRegisterMetaType<QByteArray>("QByteArray");
}
} // namespace

Q_COREAPP_STARTUP_FUNCTION(registerDataProcessorMetaTypes)
