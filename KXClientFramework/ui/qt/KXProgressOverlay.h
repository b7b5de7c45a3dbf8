#pragma once

#include <KXClientFramework/KXExport.h>

#include <QTimer>
#include <QWidget>

/// The heads-up overlay the screens show while they load: a translucent box over its parent
/// with an indeterminate spinner, a round (pie or ring) progress, or a bar, and a label.
class KX_EXPORT KXProgressOverlay : public QWidget {
    Q_OBJECT
public:
    enum class Mode { Indeterminate, Determinate, AnnularDeterminate, Bar, Text };

    /// Covers `parent` and follows its size; hidden until shown.
    explicit KXProgressOverlay(QWidget* parent);

    Mode mode() const { return mode_; }
    void setMode(Mode mode);
    QString labelText() const { return label_; }
    void setLabelText(const QString& text);
    /// Progress of the determinate modes, 0 to 1.
    double progress() const { return progress_; }
    void setProgress(double progress);

    /// Shows the overlay over the whole parent and starts the spinner.
    void showOverlay();
    /// Hides the overlay and stops the spinner.
    void hideOverlay();

protected:
    void paintEvent(QPaintEvent* event) override;
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    QRect boxRect() const;

    Mode mode_ = Mode::Indeterminate;
    QString label_;
    double progress_ = 0.0;
    int spinnerStep_ = 0;
    QTimer spinnerTimer_;
};
