// A small program that uses the library and prints what it did.
#include <terncl/ternclshared.h>

#include <QCoreApplication>
#include <QTextStream>

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    QTextStream out(stdout);

    const AbstractError error(403, AbstractError::HttpError, TERNCL_SOURCE_PLACE, "Forbidden");
    out << "An error as the library logs it: " << error << '\n';

    AbstractNetworkConsumersStats stats;
    QtConnectionsMap delta;
    delta[{QStringLiteral("example.org"), 443}].count = 2;
    QObject::connect(&stats, &AbstractNetworkConsumersStats::connectionsMapChangedDelta,
                     [&out](const QtConnectionsMap& change) {
                         for (auto it = change.cbegin(); it != change.cend(); ++it)
                             out << "Connections to " << it.key().host << ':' << it.key().port
                                 << " changed by " << it.value().count << '\n';
                     });
    QMetaObject::invokeMethod(&stats, "onConsumerConnectionsMapChangedDelta",
                              Q_ARG(QtConnectionsMap, delta));
    out << "Merged map holds " << stats.connectionsMap().size() << " endpoint(s)\n";
    return 0;
}
