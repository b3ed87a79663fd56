// The window draws a HelperViewModel and nothing else: every decision about what shows lies
// there. Each change of the model replaces the drawn widgets as a whole, from the event loop,
// so that no button is deleted while its own click is being handled; for the same reason the
// buttons' actions run queued.
#include "MorvaneHelper/HelperView.h"

#include "MorvaneHelper/QtMainThread.h"
#include "MorvanePlatform/Workspace.h"

#include <QApplication>
#include <QFrame>
#include <QHBoxLayout>
#include <QLabel>
#include <QPainter>
#include <QPainterPath>
#include <QProgressBar>
#include <QPushButton>
#include <QShortcut>
#include <QVBoxLayout>

namespace morvane {
namespace {

using Style = HelperViewModel::Style;

const QColor green(52, 199, 89);
const QColor orange(255, 149, 0);
const QColor red(255, 59, 48);

// The desktop's body text size stands for the 13 points the window was laid out in.
double scaled(double points) { return QApplication::font().pointSizeF() * points / 13.0; }

QColor secondaryColor() {
    QColor color = QApplication::palette().color(QPalette::WindowText);
    color.setAlphaF(0.55);
    return color;
}

void setTextColor(QWidget* widget, const QColor& color) {
    QPalette palette = widget->palette();
    palette.setColor(QPalette::WindowText, color);
    widget->setPalette(palette);
}

QLabel* makeLabel(const HelperViewModel::Text& text) {
    auto* label = new QLabel(QString::fromStdString(text.text));
    // Notes and error messages come from elsewhere: never read them as markup.
    label->setTextFormat(Qt::PlainText);
    label->setWordWrap(true);
    QFont font = label->font();
    switch (text.style) {
    case Style::title:
        font.setBold(true);
        font.setPointSizeF(scaled(17));
        break;
    case Style::bold: font.setBold(true); break;
    case Style::secondary: setTextColor(label, secondaryColor()); break;
    case Style::footnote:
        font.setPointSizeF(scaled(10));
        setTextColor(label, secondaryColor());
        break;
    case Style::warning: setTextColor(label, orange); break;
    case Style::error: setTextColor(label, red); break;
    case Style::plain: break;
    }
    label->setFont(font);
    return label;
}

// Button titles read "&" as the mark of a keyboard mnemonic; ours mean the character.
QString buttonTitle(const std::string& title) { return QString::fromStdString(title).replace("&", "&&"); }

QVBoxLayout* stack(int spacing, QWidget* owner = nullptr) {
    auto* layout = new QVBoxLayout(owner);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(spacing);
    return layout;
}

} // namespace

QIcon helperIcon() {
    QPixmap pixmap(128, 128);
    pixmap.fill(Qt::transparent);
    QPainter painter(&pixmap);
    painter.setRenderHint(QPainter::Antialiasing);
    QLinearGradient backdrop(0, 0, 0, 128);
    backdrop.setColorAt(0, QColor(90, 110, 140));
    backdrop.setColorAt(1, QColor(40, 52, 72));
    painter.setBrush(backdrop);
    painter.setPen(Qt::NoPen);
    painter.drawRoundedRect(QRectF(4, 4, 120, 120), 26, 26);
    // A calendar page...
    painter.setBrush(Qt::white);
    painter.drawRoundedRect(QRectF(26, 28, 76, 72), 10, 10);
    painter.setBrush(red);
    QPainterPath band;
    band.addRoundedRect(QRectF(26, 28, 76, 22), 10, 10);
    band.addRect(QRectF(26, 40, 76, 10));
    painter.drawPath(band.simplified());
    // ...and a clock hand turning back.
    painter.setPen(QPen(QColor(40, 52, 72), 6, Qt::SolidLine, Qt::RoundCap));
    painter.setBrush(Qt::NoBrush);
    painter.drawArc(QRectF(46, 58, 36, 36), 90 * 16, 270 * 16);
    painter.drawLine(QPointF(64, 76), QPointF(64, 64));
    painter.drawLine(QPointF(64, 76), QPointF(72, 80));
    return QIcon(pixmap);
}

Step::Step(int number, bool done, const QString& title, QWidget* content, QWidget* parent) : QWidget(parent) {
    auto* row = new QHBoxLayout(this);
    row->setContentsMargins(0, 0, 0, 0);
    row->setSpacing(12);
    row->setAlignment(Qt::AlignTop);

    auto* badge = new QLabel(done ? QStringLiteral("✓") : QString::number(number));
    badge->setObjectName(done ? "doneBadge" : "numberBadge");
    badge->setFixedSize(22, 22);
    badge->setAlignment(Qt::AlignCenter);
    QFont badgeFont = badge->font();
    badgeFont.setBold(true);
    badgeFont.setPointSizeF(scaled(done ? 11 : 12));
    badge->setFont(badgeFont);
    QColor fill = done ? green : QApplication::palette().color(QPalette::WindowText);
    if (!done) fill.setAlphaF(0.25 * 0.55);
    badge->setStyleSheet(QString("QLabel { border-radius: 11px; background-color: rgba(%1, %2, %3, %4); color: %5; }")
                             .arg(fill.red())
                             .arg(fill.green())
                             .arg(fill.blue())
                             .arg(fill.alpha())
                             .arg(done ? "white" : QApplication::palette().color(QPalette::WindowText).name()));
    row->addWidget(badge, 0, Qt::AlignTop);

    auto* column = stack(6);
    auto* heading = new QLabel(title);
    heading->setTextFormat(Qt::PlainText);
    QFont headline = heading->font();
    headline.setBold(true);
    heading->setFont(headline);
    column->addWidget(heading);
    if (content != nullptr) column->addWidget(content);
    row->addLayout(column, 1);
}

HelperView::HelperView(std::shared_ptr<HelperModel> model, QWidget* parent)
    : QWidget(parent), model_(std::move(model)) {
    auto* outer = stack(0, this);
    // The window takes the size of what it shows, as the content changes.
    outer->setSizeConstraint(QLayout::SetFixedSize);
    model_->setObserver([this] { scheduleRender(); });
    render(HelperViewModel::of(*model_));
}

HelperView::~HelperView() { model_->setObserver({}); }

void HelperView::showEvent(QShowEvent* event) {
    QWidget::showEvent(event);
    model_->refresh();
}

void HelperView::scheduleRender() {
    if (renderScheduled_) return;
    renderScheduled_ = true;
    queueOnEventLoop(this, [this] {
        renderScheduled_ = false;
        render(HelperViewModel::of(*model_));
    });
}

void HelperView::perform(HelperViewModel::Action action) {
    switch (action) {
    case HelperViewModel::Action::openPrivacySettings: Workspace::current().openURL(privacySettingsURL); break;
    case HelperViewModel::Action::importAll: model_->importAll(); break;
    case HelperViewModel::Action::openMorvane: model_->openMorvane(); break;
    case HelperViewModel::Action::confirmRemove: model_->confirmRemove(); break;
    }
}

QWidget* HelperView::makeContent(const HelperViewModel::Content& content) {
    if (content.empty()) return nullptr;
    auto* widget = new QWidget;
    auto* column = stack(8, widget);
    if (content.progress) {
        const auto& progress = *content.progress;
        column->addWidget(makeLabel({progress.label, Style::plain}));
        auto* bar = new QProgressBar;
        bar->setRange(0, progress.total);
        bar->setValue(progress.value);
        bar->setTextVisible(false);
        column->addWidget(bar);
        column->addWidget(makeLabel({progress.currentValueLabel, Style::secondary}));
    }
    if (content.spinner) {
        auto* row = new QHBoxLayout;
        row->setSpacing(8);
        auto* spinner = new QProgressBar;
        spinner->setRange(0, 0); // busy, without a known end
        spinner->setTextVisible(false);
        spinner->setFixedSize(48, 10);
        row->addWidget(spinner, 0, Qt::AlignVCenter);
        row->addWidget(makeLabel({*content.spinner, Style::plain}), 1, Qt::AlignVCenter);
        column->addLayout(row);
    }
    for (const auto& text : content.texts)
        column->addWidget(makeLabel(text));
    if (!content.buttons.empty()) {
        auto* row = new QHBoxLayout;
        for (const auto& button : content.buttons) {
            auto* push = new QPushButton(buttonTitle(button.title));
            push->setEnabled(button.enabled);
            const auto action = button.action;
            connect(
                push, &QPushButton::clicked, this, [this, action] { perform(action); }, Qt::QueuedConnection);
            if (button.isDefault) {
                push->setDefault(true);
                for (const auto key : {Qt::Key_Return, Qt::Key_Enter}) {
                    auto* shortcut = new QShortcut(QKeySequence(key), widget);
                    connect(shortcut, &QShortcut::activated, push, [push] {
                        if (push->isEnabled()) push->click();
                    });
                }
            }
            row->addWidget(push);
        }
        row->addStretch(1);
        column->addLayout(row);
    }
    return widget;
}

void HelperView::render(const HelperViewModel& view) {
    auto* page = new QWidget;
    page->setFixedWidth(HelperViewModel::width);
    auto* column = stack(18, page);
    column->setContentsMargins(24, 24, 24, 24);
    column->setAlignment(Qt::AlignTop | Qt::AlignLeft);

    auto* header = new QHBoxLayout;
    header->setSpacing(14);
    auto* icon = new QLabel;
    icon->setPixmap(QApplication::windowIcon().isNull() ? helperIcon().pixmap(64, 64)
                                                        : QApplication::windowIcon().pixmap(64, 64));
    icon->setFixedSize(64, 64);
    header->addWidget(icon, 0, Qt::AlignVCenter);
    auto* titles = stack(4);
    titles->addWidget(makeLabel(view.heading));
    titles->addWidget(makeLabel(view.subheading));
    header->addLayout(titles, 1);
    column->addLayout(header);

    for (const auto& step : view.steps)
        column->addWidget(
            new Step(step.number, step.done, QString::fromStdString(step.title), makeContent(step.content)));

    auto* divider = new QFrame;
    divider->setFrameShape(QFrame::HLine);
    divider->setFrameShadow(QFrame::Sunken);
    column->addSpacing(4);
    column->addWidget(divider);

    auto* footer = new QHBoxLayout;
    footer->setAlignment(Qt::AlignTop);
    footer->addWidget(makeLabel(view.footer), 1, Qt::AlignTop);
    auto* remove = new QPushButton(buttonTitle(view.removeButton.title));
    remove->setEnabled(view.removeButton.enabled);
    QFont small = remove->font();
    small.setPointSizeF(scaled(11));
    remove->setFont(small);
    const auto action = view.removeButton.action;
    connect(
        remove, &QPushButton::clicked, this, [this, action] { perform(action); }, Qt::QueuedConnection);
    footer->addWidget(remove, 0, Qt::AlignTop);
    column->addLayout(footer);

    if (shown_ != nullptr) {
        layout()->removeWidget(shown_);
        shown_->hide();
        shown_->deleteLater();
    }
    shown_ = page;
    layout()->addWidget(page);
}

} // namespace morvane
