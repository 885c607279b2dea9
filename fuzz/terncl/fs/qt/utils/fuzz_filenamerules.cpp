// Feeds arbitrary names to the file-name rules and checks what they promise: sanitized names hold
// no rejected character, no trailing space or dot, no broken surrogate pair and at most 248
// characters; extensions end the name; numbered names keep their suffix and number; moving a
// path into the ".unwanted" folder and out again gives it back; long paths only gain a prefix.
//
// Input: one byte of switches, then the name, as UTF-8 or (switch 0x01) as raw UTF-16.
#include <terncl/fs/qt/utils/filenamerules.h>

#include <QString>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

const QString& nameUnderTest(const QString* name = nullptr) {
    static QString current;
    if (name)
        current = *name;
    return current;
}

void check(bool condition, const char* what) {
    if (condition)
        return;
    std::fprintf(stderr, "%s for \"%s\"\n", what,
                 nameUnderTest().toUtf8().toPercentEncoding(" ").constData());
    std::abort();
}

bool isRejected(QChar c) {
    return QStringLiteral("/?<>\\:*|\"\n").contains(c);
}

bool hasBrokenPair(const QString& text) {
    for (qsizetype i = 0; i < text.size(); ++i) {
        if (text.at(i).isHighSurrogate()) {
            if (i + 1 == text.size() || !text.at(i + 1).isLowSurrogate())
                return true;
            ++i;
        } else if (text.at(i).isLowSurrogate()) {
            return true;
        }
    }
    return false;
}

void checkSanitized(const QString& name, bool limitLength, const QString& replacement) {
    const QString result = FileNameRules::sanitizedFileName(name, limitLength, replacement);
    check(std::none_of(result.cbegin(), result.cend(), isRejected), "rejected character kept");
    check(!result.endsWith(QLatin1Char(' ')) && !result.endsWith(QLatin1Char('.')),
          "trailing space or dot");
    check(!limitLength || result.size() <= 248, "name longer than 248");
    check(hasBrokenPair(name) || !hasBrokenPair(result), "surrogate pair broken");
}

void checkExtension(const QString& name) {
    const QString extension = FileNameRules::fileExtension(name);
    check(!extension.startsWith(QLatin1Char('.')), "extension starts with a dot");
    check(extension.isEmpty() || name.endsWith(QLatin1Char('.') + extension),
          "extension does not end the name");
}

void checkUnique(const QString& name, int startIndex, bool noSpace) {
    // Nothing exists below this folder, so every name is free.
    const QString path = QStringLiteral("/nonexistent-fuzz-folder/") + name;
    const QString suffix = QStringLiteral(".part");
    const auto unique = FileNameRules::uniqueFileName(path, suffix, startIndex, noSpace);
    check(unique.number == startIndex, "unexpected number");
    if (startIndex == 0) {
        check(unique.path == path, "free path changed");
        return;
    }
    const QString number = QStringLiteral("(%1)").arg(startIndex);
    check(unique.path.contains(number), "number missing");
    check(!path.endsWith(suffix, Qt::CaseInsensitive) ||
              unique.path.endsWith(path.right(suffix.size())),
          "suffix lost");
}

void checkUnwanted(const QString& path) {
    const QString in = FileNameRules::unwantedFolderPath(path, true);
    check(FileNameRules::unwantedFolderPath(in, true) == in, "moved in twice");
    const bool wasIn = in == path;
    if (!wasIn)
        check(FileNameRules::unwantedFolderPath(in, false) == path, "in and out again differs");
    // Moving out takes away one marker, nothing else.
    const QString out = FileNameRules::unwantedFolderPath(path, false);
    check(out == path || out.size() == path.size() - 10, "moved out changes more than a marker");
    check((out != path) == wasIn, "moved in and out disagree on the state");
}

void checkLongPath(const QString& path) {
    QString backslashed = path;
    backslashed.replace(QLatin1Char('/'), QLatin1Char('\\'));
    const QString windows = FileNameRules::windowsLongPath(path);
    const bool prefixed = windows.size() != backslashed.size();
    check(windows.endsWith(backslashed), "path changed");
    check(!prefixed || windows == QStringLiteral("\\\\?\\") + backslashed, "wrong prefix");
    check(prefixed == (backslashed.size() >= 260 && !backslashed.startsWith(QLatin1Char('\\'))),
          "prefix where none belongs");
    check(!FileNameRules::nativeLongPath(path).isEmpty() || path.isEmpty(), "native path lost");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0)
        return 0;
    const uint8_t switches = data[0];
    const char* text = reinterpret_cast<const char*>(data + 1);
    const qsizetype length = qsizetype(size - 1);
    QString name;
    if (switches & 0x01) {
        std::u16string units(size_t(length / 2), u'\0');
        std::memcpy(units.data(), text, units.size() * sizeof(char16_t));
        name = QString::fromStdU16String(units);
    } else {
        name = QString::fromUtf8(text, length);
    }
    nameUnderTest(&name);

    const QString replacements[] = {QString(), QStringLiteral("_"), QStringLiteral(" - ")};
    checkSanitized(name, switches & 0x02, replacements[(switches >> 2) % 3]);
    checkExtension(name);
    checkUnique(name, (switches >> 4) & 0x03, switches & 0x40);
    checkUnwanted(name);
    checkLongPath(name);
    return 0;
}
