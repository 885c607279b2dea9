#include "filenamerules.h"

#include <QDir>
#include <QFileInfo>

#include <algorithm>
#include <limits>

namespace {

constexpr int maxFileNameLength = 248;
constexpr int longPathThreshold = 260;

bool isRejectedCharacter(QChar c) {
    switch (c.unicode()) {
    case '/':
    case '?':
    case '<':
    case '>':
    case '\\':
    case ':':
    case '*':
    case '|':
    case '"':
    case '\n':
        return true;
    default:
        return false;
    }
}

QString withRejectedRunsReplaced(const QString& name, const QString& replacement) {
    QString result;
    result.reserve(name.size());
    bool inRun = false;
    for (const QChar c : name) {
        if (!isRejectedCharacter(c)) {
            result.append(c);
            inRun = false;
        } else if (!inRun) {
            result.append(replacement);
            inRun = true;
        }
    }
    return result;
}

bool isAsciiDigit(QChar c) {
    return c >= QLatin1Char('0') && c <= QLatin1Char('9');
}

// Only a name that is exactly a device word is caught: "con.txt" and "aux" pass on purpose.
bool isReservedDeviceName(const QString& name) {
    const auto is = [&name](const char* word) {
        return name.compare(QLatin1String(word), Qt::CaseInsensitive) == 0;
    };
    if (is("con") || is("nul") || is("prn"))
        return true;
    if (name.size() != 4 || !isAsciiDigit(name.at(3)))
        return false;
    const QString word = name.left(3);
    return word.compare(QLatin1String("com"), Qt::CaseInsensitive) == 0 ||
           word.compare(QLatin1String("lpt"), Qt::CaseInsensitive) == 0;
}

void chopTrailingSpacesAndDots(QString& name) {
    qsizetype end = name.size();
    while (end > 0 &&
           (name.at(end - 1) == QLatin1Char(' ') || name.at(end - 1) == QLatin1Char('.')))
        --end;
    name.truncate(end);
}

// Removes the characters just before the first dot so that a compound extension survives. The
// cut never splits a surrogate pair, so the result may be one or two characters shorter.
void cutToMaxLength(QString& name) {
    const qsizetype excess = name.size() - maxFileNameLength;
    const qsizetype firstDot = name.indexOf(QLatin1Char('.'));
    const qsizetype dot = firstDot < 0 ? name.size() : firstDot;
    qsizetype start = qMax<qsizetype>(0, dot - excess);
    qsizetype end = start + excess;
    if (start > 0 && name.at(start).isLowSurrogate() && name.at(start - 1).isHighSurrogate())
        --start;
    if (end < name.size() && name.at(end).isLowSurrogate() && name.at(end - 1).isHighSurrogate())
        ++end;
    name.remove(start, end - start);
}

// A dangling symbolic link counts as taken: creating a file there would follow the link.
bool isTaken(const QString& path) {
    const QFileInfo info(path);
    return info.exists() || info.isSymLink();
}

bool isFree(const QString& candidate, const QString& suffix) {
    return !isTaken(candidate + suffix) && !isTaken(candidate);
}

// The N of a stem ending in " (N)", or -1 when the stem carries no such number.
int trailingNumber(const QString& stem) {
    if (!stem.endsWith(QLatin1Char(')')))
        return -1;
    const qsizetype open = stem.lastIndexOf(QLatin1Char('('));
    if (open < 1 || stem.at(open - 1) != QLatin1Char(' '))
        return -1;
    const QString digits = stem.mid(open + 1, stem.size() - open - 2);
    if (digits.isEmpty() || !std::all_of(digits.cbegin(), digits.cend(), isAsciiDigit))
        return -1;
    bool ok = false;
    const int number = digits.toInt(&ok);
    return ok ? number : -1;
}

struct NumberedName {
    QString stem;
    QString dotExtension;
    QString suffix;
    bool suffixReturned = false;
    bool noSpace = false;

    QString candidate(int number) const {
        const QString pattern = noSpace ? QStringLiteral("%1(%2)%3") : QStringLiteral("%1 (%2)%3");
        return pattern.arg(stem, QString::number(number), dotExtension);
    }
    bool isFree(int number) const { return ::isFree(candidate(number), suffix); }
    QString returned(int number) const {
        return suffixReturned ? candidate(number) + suffix : candidate(number);
    }
};

} // namespace

QString FileNameRules::sanitizedFileName(const QString& name, bool limitLength,
                                         const QString& replacement) {
    if (name.isEmpty())
        return name;
    QString result = withRejectedRunsReplaced(name, replacement);
    if (isReservedDeviceName(result))
        result = replacement;
    chopTrailingSpacesAndDots(result);
    if (limitLength && result.size() > maxFileNameLength) {
        cutToMaxLength(result);
        // A name without a dot loses its end, which may leave a space there again.
        chopTrailingSpacesAndDots(result);
    }
    return result;
}

QString FileNameRules::fileExtension(const QString& fileNameOrPath) {
    const QFileInfo info(fileNameOrPath);
    const QString lastSuffix = info.suffix();
    if (lastSuffix == info.completeSuffix())
        return lastSuffix;
    // "<something>.tar.<last suffix>", compared case-insensitively.
    const QString name = info.fileName();
    const qsizetype lastDot = name.lastIndexOf(QLatin1Char('.'));
    const QLatin1String tar(".tar");
    const qsizetype tarDot = lastDot - tar.size();
    if (tarDot >= 1 && lastDot + 1 < name.size() &&
        QStringView(name).mid(tarDot, tar.size()).compare(tar, Qt::CaseInsensitive) == 0)
        return name.mid(tarDot + 1);
    return lastSuffix;
}

FileNameRules::UniqueName FileNameRules::uniqueFileName(const QString& path, const QString& suffix,
                                                        int startIndex, bool noSpace) {
    const bool hasSuffix = !suffix.isEmpty() && path.endsWith(suffix, Qt::CaseInsensitive);
    const QString base = hasSuffix ? path.chopped(suffix.size()) : path;
    if (startIndex == 0 && !isTaken(path) && !(hasSuffix && isTaken(base)))
        return {path, 0};

    NumberedName name;
    // The suffix is put back as the path spells it. A path without it gets none added, but its
    // numbered names are still kept free with the suffix too.
    name.suffix = hasSuffix ? path.right(suffix.size()) : suffix;
    name.suffixReturned = hasSuffix;
    name.noSpace = noSpace;
    const QString extension = fileExtension(base);
    name.stem = extension.isEmpty() ? base : base.chopped(extension.size() + 1);
    name.dotExtension = extension.isEmpty() ? QString() : QLatin1Char('.') + extension;

    const int previous = trailingNumber(name.stem);
    if (previous >= 0) {
        NumberedName prefixed = name;
        prefixed.stem = name.stem.left(name.stem.lastIndexOf(QLatin1Char('(')) - 1);
        bool lowerNumberFree = false;
        for (int number = 1; number < previous && !lowerNumberFree; ++number)
            lowerNumberFree = prefixed.isFree(number);
        if (!lowerNumberFree)
            name = prefixed;
    }

    for (int number = startIndex == 0 ? 1 : startIndex;; ++number) {
        if (name.isFree(number))
            return {name.returned(number), number};
        if (number == std::numeric_limits<int>::max())
            return {};
    }
}

QString FileNameRules::unwantedFolderPath(const QString& relativePath, bool unwanted) {
    const QLatin1String startMarker(".unwanted/");
    const QLatin1String innerMarker("/.unwanted/");
    const bool atStart = relativePath.startsWith(startMarker);
    const qsizetype inner = atStart ? -1 : relativePath.indexOf(innerMarker);
    const bool isUnwanted = atStart || inner >= 0;
    if (isUnwanted == unwanted)
        return relativePath;

    QString result = relativePath;
    if (unwanted)
        result.insert(relativePath.indexOf(QLatin1Char('/')) + 1, startMarker);
    else
        result.remove(atStart ? 0 : inner, startMarker.size());
    return result;
}

QString FileNameRules::nativeLongPath(const QString& path) {
#ifdef Q_OS_WIN
    return windowsLongPath(path);
#else
    // Elsewhere paths have no length prefix; a "\\?\" would only make the path wrong.
    return QDir::toNativeSeparators(path);
#endif
}

QString FileNameRules::windowsLongPath(const QString& path) {
    QString result = path;
    result.replace(QLatin1Char('/'), QLatin1Char('\\'));
    if (result.size() >= longPathThreshold && !result.startsWith(QLatin1Char('\\')))
        result.prepend(QLatin1String("\\\\?\\"));
    return result;
}
