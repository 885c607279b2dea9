#pragma once

#include <terncl/inet/qt/download/abstractdownloadresourceversionselector.h>

#include <QList>
#include <QString>

// The table tern-get -F prints: one line per version with its id, kind (video+audio, video
// only, audio only), container and codecs, resolution, frame rate, bitrate, audio language and
// size, exact where the playlist, manifest or a size query told it, "~" before an estimate, "-"
// where neither is known.
namespace FormatsTable {
QString text(const QList<AbstractDownloadResourceVersionSelector::CompositeVersion>& versions);
} // namespace FormatsTable
