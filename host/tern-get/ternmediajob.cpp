#include "ternmediajob.h"

#include "formatspec.h"
#include "formatstable.h"

#include <cstdio>

namespace {
QString errorText(const AbstractError& error) {
    const QString description = QString::fromStdString(error.description);
    if (error.category == AbstractError::HttpError)
        return QStringLiteral("HTTP error %1: %2").arg(error.code).arg(description);
    return description.isEmpty() ? error.toText() : description;
}

QString idsText(const FormatSpec::Versions& versions) {
    QStringList ids;
    for (const auto& version : versions)
        ids.append(MediaVersions::id(version));
    return ids.join(QStringLiteral(", "));
}
} // namespace

TernMediaJob::TernMediaJob(const TernGetJob::Options& options, QNetworkAccessManager* network,
                           QObject* parent)
    : QObject(parent)
    , m_options(options)
    , m_network(network)
    , m_out(stdout)
    , m_err(stderr) {}

TernMediaJob::~TernMediaJob() = default;

void TernMediaJob::start() {
    QString error;
    if (!m_options.format.isEmpty() && !FormatSpec::isValid(m_options.format, &error)) {
        fail(QStringLiteral("-f %1: %2").arg(m_options.format, error), 2);
        return;
    }
    m_probe = new MediaProbe(m_network, this);
    connect(m_probe, &MediaProbe::finished, this, &TernMediaJob::onProbed);
    m_probe->start(m_options.url);
}

void TernMediaJob::interrupt() {
    if (m_probe)
        m_probe->abort();
    finish(130);
}

void TernMediaJob::onProbed(const AbstractError& error) {
    if (error.isSet()) {
        fail(errorText(error));
        return;
    }
    const auto& versions = m_probe->listing().versions;
    if (versions.isEmpty()) {
        fail(QStringLiteral("no resource versions found"));
        return;
    }
    if (m_options.listFormats) {
        list();
        return;
    }
    const int chosen =
        m_options.format.isEmpty() ? 0 : FormatSpec::choose(versions, m_options.format);
    if (chosen < 0) {
        fail(QStringLiteral("-f %1 matches none of: %2").arg(m_options.format, idsText(versions)),
             2);
        return;
    }
    fail(QStringLiteral("downloading %1: media downloads are not available in this build")
             .arg(MediaVersions::id(versions.at(chosen))));
}

void TernMediaJob::list() {
    m_out << FormatsTable::text(m_probe->listing().versions) << Qt::flush;
    finish(0);
}

void TernMediaJob::fail(const QString& text, int exitCode) {
    m_err << "tern-get: " << text << Qt::endl;
    finish(exitCode);
}

void TernMediaJob::finish(int exitCode) {
    if (m_finished)
        return;
    m_finished = true;
    Q_EMIT finished(exitCode);
}
