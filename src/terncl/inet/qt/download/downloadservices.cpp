// Constructors of the download service interfaces, which the application implements.
#include "abstractchilddownloadsmanager.h"
#include "abstractchilddownloadsmanagerschief.h"
#include "abstractdownloadserrorsreportsmanager.h"
#include "abstractdownloadslocksmanager.h"
#include "abstractdownloadssimplefactory.h"
#include "abstractdownloadstasksperformer.h"
#include "abstractincomingdownloadsprocessor.h"
#include "abstractnewdownloadssource.h"

AbstractDownloadsTasksPerformer::AbstractDownloadsTasksPerformer(QObject* parent)
    : QtRunningObject(parent) {}

AbstractDownloadsTasksPerformer::~AbstractDownloadsTasksPerformer() = default;

AbstractDownloadsSimpleFactory::AbstractDownloadsSimpleFactory(QObject* parent)
    : QObject(parent) {}

AbstractDownloadsSimpleFactory::~AbstractDownloadsSimpleFactory() = default;

AbstractChildDownloadsManager::AbstractChildDownloadsManager(QObject* parent)
    : QObject(parent) {}

AbstractChildDownloadsManager::~AbstractChildDownloadsManager() = default;

AbstractChildDownloadsManagersChief::AbstractChildDownloadsManagersChief(QObject* parent)
    : QObject(parent) {}

AbstractChildDownloadsManagersChief::~AbstractChildDownloadsManagersChief() = default;

AbstractNewDownloadsSource::AbstractNewDownloadsSource(QObject* parent)
    : QObject(parent) {}

AbstractNewDownloadsSource::~AbstractNewDownloadsSource() = default;

AbstractIncomingDownloadsProcessor::AbstractIncomingDownloadsProcessor(QObject* parent)
    : QObject(parent) {}

AbstractIncomingDownloadsProcessor::~AbstractIncomingDownloadsProcessor() = default;

AbstractDownloadsLocksManager::AbstractDownloadsLocksManager(QObject* parent)
    : QObject(parent) {}

AbstractDownloadsLocksManager::~AbstractDownloadsLocksManager() = default;

AbstractDownloadsErrorsReportsManager::AbstractDownloadsErrorsReportsManager(QObject* parent)
    : QObject(parent) {}

AbstractDownloadsErrorsReportsManager::~AbstractDownloadsErrorsReportsManager() = default;
