// Feeds arbitrary bytes to the download record's JSON reader. Whatever it salvages must write
// back and read again to the same record.
#include <terncl/inet/qt/download/abstractdownloadpersistentinfo.h>

#include <QByteArray>

#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const QByteArray input(reinterpret_cast<const char*>(data), qsizetype(size));
    const auto record = AbstractDownloadPersistentInfo::fromJson(input);
    const auto again = AbstractDownloadPersistentInfo::fromJson(record.toJson());
    if (again != record)
        std::abort();
    (void)record.downloadedBytes();
    (void)record.totalSize();
    return 0;
}
