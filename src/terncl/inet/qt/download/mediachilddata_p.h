#pragma once

#include <terncl/inet/qt/download/abstractdownloadfileinfo.h>
#include <terncl/inet/qt/download/abstractdownloadresourceversionselector.h>
#include <terncl/inet/qt/download/abstractdownloadsourceinfo.h>

#include <QVariantHash>

namespace terncl::media {

// The request of a version as a source: its URL and its "Name: value" header lines.
AbstractDownloadSourceInfo
sourceOf(const AbstractDownloadResourceVersionSelector::Version& version);

// What a child download of a version is set up from: {"source": the source's hash, "file": the
// file record's hash (empty for a probe), "protocol": the version's protocol, "initData": the
// parser's details of the version}.
QVariantHash childInitData(const AbstractDownloadResourceVersionSelector::Version& version,
                           const AbstractDownloadFileInfo* file);

} // namespace terncl::media
