#pragma once

#include <terncl/inet/qt/download/abstractfiletype.h>
#include <terncl/ternclshared_export.h>

#include <QByteArray>
#include <QDateTime>
#include <QList>
#include <QMetaType>
#include <QObject>
#include <QString>
#include <QUrl>
#include <QVariant>
#include <QVariantHash>

// The versions of one web resource (formats, resolutions, audio-only and video-only streams, and
// composite versions whose parts are fetched apart and merged), kept in preference order, and
// the index of the version the user or the program selected. A media download fills it from its
// parser's result and reads the selection; a size query fills in unknown sizes. Lives on the
// thread of the download that owns it.
class TERNCL_EXPORT AbstractDownloadResourceVersionSelector : public QObject {
    Q_OBJECT
    Q_PROPERTY(int selectedVersion READ selectedVersion WRITE setSelectedVersion NOTIFY
                   selectedVersionChanged)

public:
    // What a version holds: the values of MediaDescription::type. The preference order puts
    // VideoWithAudio first among versions of one format and places audio-only webm late. Parsers
    // map their own stream kinds onto these values.
    enum MediaType : int {
        UnknownMedia = 0,
        AudioOnly = 1,
        VideoWithAudio = 2,
        VideoOnly = 3,
    };

    // What a version contains, as the parser described it. Values that the parser did not give
    // stay 0 or empty.
    struct TERNCL_EXPORT MediaDescription {
        int type = UnknownMedia; // a MediaType
        QString contentType;
        QString format; // the container, such as "mp4"
        int width = 0;
        int height = 0;
        int bitrate = 0;
        int fps = 0;
        int duration = 0;
        QString language;

        bool operator==(const MediaDescription& other) const;
        bool operator!=(const MediaDescription& other) const { return !(*this == other); }

        // Keys "type", "contentType", "format", "width", "height", "bitrate", "fps",
        // "duration" and "language"; a missing key keeps the default of its field.
        static MediaDescription fromVariantHash(const QVariantHash& hash);
        QVariantHash toVariantHash() const;
    };

    // One way to fetch the resource (or one part of a composite version). The selector itself
    // reads only the media description and the size; the other fields are filled and read by
    // the media download and by the code that stores versions.
    struct TERNCL_EXPORT Version {
        int originType = 0;            // what produced the version (the parser's own code)
        QVariant details;              // the parser's data for the child download that fetches it
        QUrl url;                      // where it is fetched from
        QString protocol;              // how it is fetched: picks the module of the child
        QList<QString> requestHeaders; // extra request header lines, "Name: value"
        QByteArray requestData;        // body of a POST request; empty for a GET
        QUrl referrer;
        int streamIndex = 0;   // the stream's index in the source's manifest
        int programIndex = 0;  // the program (of a multi-program stream) it belongs to
        int fragmentCount = 0; // fragments of a fragmented stream; 0 when not known
        int maxConnections = 1;
        MediaDescription media;
        QString title;    // how a list of versions names it to the user
        qint64 size = -1; // bytes; -1 when not known
        QDateTime lastModified;
    };

    // A version fetched as it is (no parts) or fetched part by part and merged. A composite of
    // exactly two parts (a video and an audio stream) is a DASH version.
    struct TERNCL_EXPORT CompositeVersion : Version {
        QList<Version> parts;

        CompositeVersion() = default;
        CompositeVersion(const Version& version)
            : Version(version) {}
        CompositeVersion(const CompositeVersion&) = default;
        CompositeVersion(CompositeVersion&&) = default;
        CompositeVersion& operator=(const CompositeVersion&) = default;
        CompositeVersion& operator=(CompositeVersion&&) = default;

        bool isDash() const { return parts.size() == 2; }
        // Its own size without parts; with parts the sum of theirs, or -1 if one is not known.
        qint64 totalSize() const;
    };

    explicit AbstractDownloadResourceVersionSelector(QObject* parent = nullptr);
    ~AbstractDownloadResourceVersionSelector() override;

    // A copy of the versions. Virtual so that a subclass may supply the list; the operations
    // below that only read the list read it through this.
    virtual QList<CompositeVersion> resourceVersions() const;
    // When the list of versions was obtained.
    virtual QDateTime date() const;

    // Index into resourceVersions(); -1 while nothing is selected.
    int selectedVersion() const;
    // Only an index of an existing version is taken; anything else is ignored silently, so the
    // selection cannot go back to -1 through this call. Emits selectedVersionChanged on a change.
    void setSelectedVersion(int index);

    bool containsCompositeVersions() const;
    // Drops every version of exactly two parts. The selection index is not adjusted.
    void removeDashVersions();
    // Puts the versions in preference order: by container format (mp4, webm with video, 3gp,
    // flv, m4a, audio-only webm, then the rest), then video with audio first, then the greater
    // height, then fewer parts. With removeDuplicates, of neighbours with equal media
    // descriptions only the better placed one stays.
    void sort(bool removeDuplicates);

    // The index of the version a user would expect by default, or -1 when there are no
    // versions. Versions are judged by their own media descriptions, in this order of criteria:
    // 1. The file type. Video: versions with video and audio, else video-only ones. Audio:
    //    audio-only versions, else versions with video and audio. Other file types (Unknown):
    //    any. When no version fits, any version will do.
    // 2. The height limit, when maxHeight is above 0: a version at or below it (unknown heights
    //    count as 0), else the lowest one above it.
    // 3. The language, when one is given: the same language ("en-US" for "en-US"), else the
    //    same primary language ("en-GB" for "en-US"), else a version without a language, else
    //    any. Compared without regard to case.
    // 4. The container format, when one is given (without regard to case), else any.
    // Among versions equal on all of these the first in the list (the preferred one) wins.
    int defaultVersionIndex(AbstractFileType fileType, int maxHeight, const QString& format,
                            const QString& language) const;

Q_SIGNALS:
    void selectedVersionChanged();

protected:
    // Replace the list and the date that resourceVersions() and date() return. The selection
    // is left as it is.
    void setResourceVersions(const QList<CompositeVersion>& versions);
    void setDate(const QDateTime& date);
    // Sets the size of a version (part -1) or of one of its parts. Indexes must be valid; an
    // invalid one is reported as a failed assertion and changes nothing.
    void updateResourceSize(int version, int part, qint64 size);

private:
    QList<CompositeVersion> m_versions;
    QDateTime m_date;
    int m_selectedVersion = -1;
};

Q_DECLARE_METATYPE(AbstractDownloadResourceVersionSelector::MediaDescription)
Q_DECLARE_METATYPE(AbstractDownloadResourceVersionSelector::Version)
Q_DECLARE_METATYPE(AbstractDownloadResourceVersionSelector::CompositeVersion)
