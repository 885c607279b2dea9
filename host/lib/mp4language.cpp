#include "mp4language.h"

#include <QFile>
#include <QLocale>
#include <QtEndian>

#include <optional>

namespace {
// The media header packs three letters as five bits each, 'a' being 1.
constexpr quint16 packedUnd = ((u'u' - 0x60) << 10) | ((u'n' - 0x60) << 5) | (u'd' - 0x60);

struct Box {
    qint64 content = 0; // where what follows the header starts
    qint64 end = 0;
    QByteArray type;
};

// The box at offset in data (a box's content, or a file's first bytes), if it fits in end.
std::optional<Box> boxAt(const QByteArray& data, qint64 offset, qint64 end) {
    if (offset + 8 > end)
        return std::nullopt;
    const char* at = data.constData() + offset;
    Box box{offset + 8, offset + qFromBigEndian<quint32>(at), data.mid(offset + 4, 4)};
    if (box.end == offset + 1 && offset + 16 <= end) {
        box.end = offset + qint64(qFromBigEndian<quint64>(at + 8));
        box.content += 8;
    } else if (box.end == offset) {
        box.end = end;
    }
    if (box.end < box.content || box.end > end)
        return std::nullopt;
    return box;
}

std::optional<Box> child(const QByteArray& data, const Box& parent, const char* type) {
    for (auto box = boxAt(data, parent.content, parent.end); box;
         box = boxAt(data, box->end, parent.end)) {
        if (box->type == type)
            return box;
    }
    return std::nullopt;
}

// Where the language of an audio track's media header lies in data, if trak is one.
std::optional<qint64> audioLanguageAt(const QByteArray& data, const Box& trak) {
    const auto mdia = child(data, trak, "mdia");
    const auto hdlr = mdia ? child(data, *mdia, "hdlr") : std::nullopt;
    const auto mdhd = mdia ? child(data, *mdia, "mdhd") : std::nullopt;
    if (!hdlr || !mdhd || hdlr->content + 12 > hdlr->end ||
        data.mid(hdlr->content + 8, 4) != "soun" || mdhd->content + 1 > mdhd->end)
        return std::nullopt;
    const qint64 at = mdhd->content + (data.at(mdhd->content) == 1 ? 32 : 20);
    return at + 2 <= mdhd->end ? std::optional<qint64>(at) : std::nullopt;
}

// The movie box, read whole: where it starts in the file and its bytes.
std::optional<std::pair<qint64, QByteArray>> readMovie(QFile& file) {
    const qint64 fileSize = file.size();
    qint64 offset = 0;
    while (offset + 8 <= fileSize && file.seek(offset)) {
        const QByteArray header = file.read(16);
        qint64 size = qFromBigEndian<quint32>(header.constData());
        if (size == 1 && header.size() == 16)
            size = qint64(qFromBigEndian<quint64>(header.constData() + 8));
        else if (size == 0)
            size = fileSize - offset;
        if (size < 8 || size > fileSize - offset)
            return std::nullopt;
        if (header.mid(4, 4) == "moov" && file.seek(offset))
            return std::pair{offset, file.read(size)};
        offset += size;
    }
    return std::nullopt;
}
} // namespace

QString Mp4Language::isoCode(const QString& language) {
    const QString primary = language.section(u'-', 0, 0).toLower();
    if (primary.size() == 3)
        return primary;
    const QLocale::Language found = QLocale::codeToLanguage(primary, QLocale::ISO639Part1);
    return found == QLocale::AnyLanguage ? QString()
                                         : QLocale::languageToCode(found, QLocale::ISO639Part2T);
}

bool Mp4Language::tagUndeterminedAudio(const QString& path, const QString& language,
                                       QString* error) {
    const QString code = isoCode(language);
    if (code.size() != 3)
        return true;
    QFile file(path);
    if (!file.open(QIODevice::ReadWrite)) {
        *error = QStringLiteral("cannot open %1: %2").arg(path, file.errorString());
        return false;
    }
    const auto movie = readMovie(file);
    if (!movie) {
        *error = QStringLiteral("%1 has no MP4 movie box").arg(path);
        return false;
    }
    const auto& [offset, data] = *movie;
    const auto moov = boxAt(data, 0, data.size());
    quint16 packed = 0;
    for (const QChar letter : code)
        packed = quint16((packed << 5) | ((letter.unicode() - 0x60) & 0x1f));
    for (auto trak = moov ? boxAt(data, moov->content, moov->end) : std::nullopt; trak;
         trak = boxAt(data, trak->end, moov->end)) {
        const auto at = trak->type == "trak" ? audioLanguageAt(data, *trak) : std::nullopt;
        if (!at || qFromBigEndian<quint16>(data.constData() + *at) != packedUnd)
            continue;
        const quint16 bigEndian = qToBigEndian(packed);
        if (!file.seek(offset + *at) ||
            file.write(reinterpret_cast<const char*>(&bigEndian), 2) != 2) {
            *error = QStringLiteral("cannot write %1: %2").arg(path, file.errorString());
            return false;
        }
    }
    return file.flush();
}
