#include "qtobj.h"

QtObj::QtObj(QObject* parent)
    : QObject(parent) {}

QtObj::~QtObj() = default;
