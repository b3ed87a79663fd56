#pragma once

#include "MorvaneHelper/HelperModel.h"
#include "MorvaneHelper/HelperViewModel.h"

#include <QIcon>
#include <QWidget>
#include <memory>

namespace morvane {

// The application's icon, drawn rather than shipped as a file.
QIcon helperIcon();

// A numbered row of the window: a badge (the number, or a check mark when done), the title,
// and under it the content the caller gives.
class Step final : public QWidget {
public:
    Step(int number, bool done, const QString& title, QWidget* content, QWidget* parent = nullptr);
};

// The window's content: heading, the three steps and the footer, drawn from the model each time
// it changes, and the model's operations behind the buttons. Refreshes the model each time it
// is shown.
class HelperView final : public QWidget {
public:
    explicit HelperView(std::shared_ptr<HelperModel> model, QWidget* parent = nullptr);
    ~HelperView() override;

    // Replaces everything shown with `view`.
    void render(const HelperViewModel& view);

protected:
    void showEvent(QShowEvent* event) override;

private:
    void scheduleRender();
    void perform(HelperViewModel::Action action);
    QWidget* makeContent(const HelperViewModel::Content& content);

    const std::shared_ptr<HelperModel> model_;
    QWidget* shown_ = nullptr;
    bool renderScheduled_ = false;
};

} // namespace morvane
