#include "formatspec.h"

#include "mediaversions.h"

#include <QRegularExpression>
#include <QStringList>

#include <algorithm>
#include <climits>
#include <optional>
#include <tuple>

namespace {

using Selector = AbstractDownloadResourceVersionSelector;
using Version = Selector::Version;
using CompositeVersion = Selector::CompositeVersion;

enum class Rank { None, Best, Worst };

struct Terms {
    Rank any = Rank::None; // best, worst
    Rank video = Rank::None;
    Rank audio = Rank::None;
    int minHeight = 0;       // inclusive
    int maxHeight = INT_MAX; // inclusive
    QString language;
};

bool parseHeight(const QString& term, Terms* terms) {
    static const QRegularExpression pattern(QStringLiteral("^height(<=|<|>=|>|=)(\\d{1,5})$"));
    const auto match = pattern.match(term);
    if (!match.hasMatch())
        return false;
    const QString op = match.captured(1);
    const int n = match.captured(2).toInt();
    if (op.startsWith(u'<'))
        terms->maxHeight = std::min(terms->maxHeight, op == QLatin1String("<") ? n - 1 : n);
    if (op.startsWith(u'>'))
        terms->minHeight = std::max(terms->minHeight, op == QLatin1String(">") ? n + 1 : n);
    if (op == QLatin1String("=")) {
        terms->minHeight = std::max(terms->minHeight, n);
        terms->maxHeight = std::min(terms->maxHeight, n);
    }
    return true;
}

bool setRank(Rank* into, Rank rank) {
    if (*into != Rank::None)
        return false;
    *into = rank;
    return true;
}

bool parseTerm(const QString& term, Terms* terms) {
    if (term == QLatin1String("best") || term == QLatin1String("worst"))
        return setRank(&terms->any, term == QLatin1String("best") ? Rank::Best : Rank::Worst);
    if (term == QLatin1String("bestvideo") || term == QLatin1String("worstvideo"))
        return setRank(&terms->video, term.startsWith(u'b') ? Rank::Best : Rank::Worst);
    if (term == QLatin1String("bestaudio") || term == QLatin1String("worstaudio"))
        return setRank(&terms->audio, term.startsWith(u'b') ? Rank::Best : Rank::Worst);
    if (term.startsWith(QLatin1String("lang=")) && term.size() > 5 && terms->language.isEmpty()) {
        terms->language = term.mid(5);
        return true;
    }
    return parseHeight(term, terms);
}

std::optional<Terms> parseTerms(const QString& alternative) {
    Terms terms;
    for (const QString& term : alternative.split(u'+')) {
        if (!parseTerm(term.trimmed().toLower(), &terms))
            return std::nullopt;
    }
    if (terms.any != Rank::None && (terms.video != Rank::None || terms.audio != Rank::None))
        return std::nullopt;
    return terms;
}

// What an id may look like: the characters MediaVersions puts into one, and not only terms
// (which together must have clashed, as in "best+worst").
bool couldBeId(const QString& text) {
    static const QRegularExpression pattern(QStringLiteral("^[A-Za-z0-9.+-]+$"));
    if (!pattern.match(text).hasMatch())
        return false;
    const QStringList pieces = text.split(u'+');
    return !std::all_of(pieces.cbegin(), pieces.cend(), [](const QString& piece) {
        Terms alone;
        return parseTerm(piece.trimmed().toLower(), &alone);
    });
}

bool languageMatches(const QString& have, const QString& want) {
    if (have.isEmpty())
        return false;
    if (have.compare(want, Qt::CaseInsensitive) == 0)
        return true;
    return have.section(u'-', 0, 0).compare(want.section(u'-', 0, 0), Qt::CaseInsensitive) == 0 &&
           !want.contains(u'-');
}

bool isApart(const CompositeVersion& version) {
    return version.parts.size() == 2 && version.parts.at(0).media.type != Selector::AudioOnly &&
           version.parts.at(1).media.type == Selector::AudioOnly;
}

bool kindFits(const CompositeVersion& version, const Terms& terms) {
    const bool video = terms.video != Rank::None;
    const bool audio = terms.audio != Rank::None;
    if (video && audio)
        return isApart(version);
    if (video)
        return version.parts.isEmpty() && version.media.type == Selector::VideoOnly;
    if (audio)
        return version.parts.isEmpty() && version.media.type == Selector::AudioOnly;
    return version.media.type == Selector::VideoWithAudio;
}

bool filtersFit(const CompositeVersion& version, const Terms& terms) {
    const int height = version.media.height;
    if ((terms.minHeight > 0 || terms.maxHeight < INT_MAX) &&
        (height <= 0 || height < terms.minHeight || height > terms.maxHeight))
        return false;
    return terms.language.isEmpty() || languageMatches(version.media.language, terms.language);
}

using Key = std::tuple<int, int, int>;

Key videoKey(const Version& version) {
    return {version.media.height, version.media.bitrate, version.media.fps};
}

// True when a ranks before b.
bool ranksBefore(const CompositeVersion& a, const CompositeVersion& b, const Terms& terms) {
    const auto ordered = [](const auto& x, const auto& y, Rank rank) {
        return rank == Rank::Worst ? x < y : y < x;
    };
    if (isApart(a) && isApart(b) && terms.video != Rank::None) {
        const Key va = videoKey(a.parts.at(0));
        const Key vb = videoKey(b.parts.at(0));
        if (va != vb)
            return ordered(va, vb, terms.video);
        return ordered(a.parts.at(1).media.bitrate, b.parts.at(1).media.bitrate, terms.audio);
    }
    const Rank rank = terms.any != Rank::None     ? terms.any
                      : terms.video != Rank::None ? terms.video
                      : terms.audio != Rank::None ? terms.audio
                                                  : Rank::Best;
    return ordered(videoKey(a), videoKey(b), rank);
}

int chooseByTerms(const FormatSpec::Versions& versions, const Terms& terms) {
    const bool anyKind = terms.video == Rank::None && terms.audio == Rank::None &&
                         std::none_of(versions.cbegin(), versions.cend(),
                                      [&](const auto& v) { return kindFits(v, terms); });
    int chosen = -1;
    for (int i = 0; i < versions.size(); ++i) {
        const CompositeVersion& version = versions.at(i);
        if ((!anyKind && !kindFits(version, terms)) || !filtersFit(version, terms))
            continue;
        if (chosen < 0 || ranksBefore(version, versions.at(chosen), terms))
            chosen = i;
    }
    return chosen;
}

QStringList alternatives(const QString& wanted) {
    QStringList result;
    for (const QString& alternative : wanted.split(u','))
        result.append(alternative.trimmed());
    return result;
}

} // namespace

bool FormatSpec::isValid(const QString& wanted, QString* error) {
    for (const QString& alternative : alternatives(wanted)) {
        if (alternative.isEmpty() || (!parseTerms(alternative) && !couldBeId(alternative))) {
            if (error)
                *error = alternative.isEmpty()
                             ? QStringLiteral("an empty alternative")
                             : QStringLiteral("neither terms that fit together nor an id: ") +
                                   alternative;
            return false;
        }
    }
    return true;
}

int FormatSpec::choose(const Versions& versions, const QString& wanted) {
    for (const QString& alternative : alternatives(wanted)) {
        const int byId = MediaVersions::indexOf(versions, alternative);
        if (byId >= 0)
            return byId;
        const auto terms = parseTerms(alternative);
        const int chosen = terms ? chooseByTerms(versions, *terms) : -1;
        if (chosen >= 0)
            return chosen;
    }
    return -1;
}
