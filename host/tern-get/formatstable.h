#pragma once

#include <terncl/inet/qt/download/abstractdownloadresourceversionselector.h>

#include <QJsonObject>
#include <QList>
#include <QString>

// The table tern-get -F prints: one line per version with its id, kind (video+audio, video
// only, audio only), container and codecs, resolution, frame rate, bitrate, audio language and
// size, exact where the playlist, manifest or a size query told it, "~" before an estimate, "-"
// where neither is known.
namespace FormatsTable {
QString text(const QList<AbstractDownloadResourceVersionSelector::CompositeVersion>& versions);
// The same columns for a front end: {"type":"format","id","kind","format","resolution","fps",
// "bitrate" (bits per second),"lang","size" (bytes),"sizeEstimated"}, null where unknown.
QJsonObject json(const AbstractDownloadResourceVersionSelector::CompositeVersion& version);
} // namespace FormatsTable
