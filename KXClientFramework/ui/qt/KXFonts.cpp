#include "KXFonts.h"

#include <QStringList>

#include <cmath>

QFont kxFont(const QString& phoneName, double size) {
    const int dash = phoneName.indexOf('-');
    const QString weightName = dash < 0 ? QString() : phoneName.mid(dash + 1);
    QFont font;
    font.setFamilies({"Helvetica Neue", "Helvetica", "Nimbus Sans", "Liberation Sans",
                      "DejaVu Sans", "sans-serif"});
    font.setPixelSize(std::max(1, static_cast<int>(std::lround(size))));
    if (weightName == "Light") {
        font.setWeight(QFont::Light);
    } else if (weightName == "Medium") {
        // DemiBold rather than Medium: families without a medium face then pick their bold
        // one, so unread rows stay distinct from read ones.
        font.setWeight(QFont::DemiBold);
    } else if (weightName == "Bold") {
        font.setWeight(QFont::Bold);
    } else {
        font.setWeight(QFont::Normal);
    }
    return font;
}
