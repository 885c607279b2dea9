#pragma once

#include <QMetaType>

// The direction of traffic a speed or a speed limit refers to.
enum class NetworkTrafficDirection : int { Download = 0, Upload = 1 };

Q_DECLARE_METATYPE(NetworkTrafficDirection)
