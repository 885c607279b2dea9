#include <terncl/ternclshared.h>

#include <QCoreApplication>
#include <QTextStream>

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    const AbstractError error(7, AbstractError::GenericError, TERNCL_SOURCE_PLACE, "consumer");
    QTextStream out(stdout);
    out << error << Qt::endl;
    return QMetaType::fromName("AbstractError").isValid() ? 0 : 1;
}
