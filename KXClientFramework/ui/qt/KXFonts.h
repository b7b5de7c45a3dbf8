#pragma once

#include <KXClientFramework/KXExport.h>

#include <QFont>
#include <QString>

/// The screens' fonts by their phone names ("HelveticaNeue-Light", "Helvetica"), mapped to the
/// nearest face the desktop has: the family falls back through Helvetica Neue, Helvetica, Nimbus
/// Sans, Liberation Sans and DejaVu Sans; the part after the dash is the weight (Light, Medium,
/// Bold; none is Normal; Medium is asked for as DemiBold). A phone point is one device-independent
/// pixel, so text keeps its proportion to the 44-pixel rows.
KX_EXPORT QFont kxFont(const QString& phoneName, double size);
