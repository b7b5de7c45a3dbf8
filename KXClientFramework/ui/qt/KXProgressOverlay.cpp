#include "KXProgressOverlay.h"

#include <QEvent>
#include <QPainter>
#include <QPainterPath>

#include <algorithm>
#include <cmath>

namespace {
constexpr int kSpokes = 12;
constexpr int kBoxPadding = 18;
}  // namespace

KXProgressOverlay::KXProgressOverlay(QWidget* parent) : QWidget(parent) {
    setObjectName("KXProgressOverlay");
    setAccessibleName("Progress");
    setAttribute(Qt::WA_TransparentForMouseEvents, false);
    setFocusPolicy(Qt::NoFocus);
    spinnerTimer_.setInterval(80);
    connect(&spinnerTimer_, &QTimer::timeout, this, [this] {
        spinnerStep_ = (spinnerStep_ + 1) % kSpokes;
        update();
    });
    if (parent != nullptr) {
        parent->installEventFilter(this);
        setGeometry(parent->rect());
    }
    hide();
}

void KXProgressOverlay::setMode(Mode mode) {
    mode_ = mode;
    update();
}

void KXProgressOverlay::setLabelText(const QString& text) {
    label_ = text;
    setAccessibleDescription(text);
    update();
}

void KXProgressOverlay::setProgress(double progress) {
    progress_ = std::clamp(std::isfinite(progress) ? progress : 0.0, 0.0, 1.0);
    update();
}

void KXProgressOverlay::showOverlay() {
    if (parentWidget() != nullptr) {
        setGeometry(parentWidget()->rect());
    }
    raise();
    show();
    if (mode_ == Mode::Indeterminate) {
        spinnerTimer_.start();
    }
}

void KXProgressOverlay::hideOverlay() {
    spinnerTimer_.stop();
    hide();
}

bool KXProgressOverlay::eventFilter(QObject* watched, QEvent* event) {
    if (watched == parentWidget() && event->type() == QEvent::Resize) {
        setGeometry(parentWidget()->rect());
    }
    return QWidget::eventFilter(watched, event);
}

QRect KXProgressOverlay::boxRect() const {
    const QFontMetrics metrics(font());
    const int width = std::max(110, metrics.horizontalAdvance(label_) + 2 * kBoxPadding);
    const int height = 110;
    return QRect((this->width() - width) / 2, (this->height() - height) / 2, width, height);
}

void KXProgressOverlay::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    const QRect box = boxRect();
    painter.setPen(Qt::NoPen);
    painter.setBrush(QColor(0, 0, 0, 200));
    painter.drawRoundedRect(box, 10, 10);

    const QRectF indicator(box.center().x() - 18, box.top() + kBoxPadding, 36, 36);
    painter.setPen(QPen(Qt::white, 3, Qt::SolidLine, Qt::RoundCap));
    painter.setBrush(Qt::NoBrush);
    switch (mode_) {
        case Mode::Indeterminate:
            for (int spoke = 0; spoke < kSpokes; ++spoke) {
                const int age = (spinnerStep_ - spoke + kSpokes) % kSpokes;
                QColor colour(Qt::white);
                colour.setAlphaF(1.0 - 0.07 * age);
                painter.setPen(QPen(colour, 3, Qt::SolidLine, Qt::RoundCap));
                const double angle = 2 * M_PI * spoke / kSpokes;
                const QPointF centre = indicator.center();
                painter.drawLine(centre + QPointF(std::cos(angle) * 9, std::sin(angle) * 9),
                                 centre + QPointF(std::cos(angle) * 17, std::sin(angle) * 17));
            }
            break;
        case Mode::Determinate:
            painter.drawEllipse(indicator);
            painter.setBrush(Qt::white);
            painter.drawPie(indicator.adjusted(4, 4, -4, -4), 90 * 16,
                            -static_cast<int>(progress_ * 360 * 16));
            break;
        case Mode::AnnularDeterminate:
            painter.setPen(QPen(QColor(255, 255, 255, 60), 4));
            painter.drawEllipse(indicator);
            painter.setPen(QPen(Qt::white, 4, Qt::SolidLine, Qt::RoundCap));
            painter.drawArc(indicator, 90 * 16, -static_cast<int>(progress_ * 360 * 16));
            break;
        case Mode::Bar: {
            const QRectF bar(box.left() + kBoxPadding, indicator.center().y() - 5,
                             box.width() - 2 * kBoxPadding, 10);
            painter.setPen(QPen(Qt::white, 1.5));
            painter.drawRoundedRect(bar, 5, 5);
            painter.setPen(Qt::NoPen);
            painter.setBrush(Qt::white);
            painter.drawRoundedRect(
                bar.adjusted(2, 2, -(1 - progress_) * (bar.width() - 4) - 2, -2), 3, 3);
            break;
        }
        case Mode::Text:
            break;
    }
    painter.setPen(Qt::white);
    painter.drawText(QRect(box.left(), box.bottom() - 40, box.width(), 30), Qt::AlignCenter,
                     label_);
}
