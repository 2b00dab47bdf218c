// The list of messages of a quad search.
#pragma once

#include <QDialog>
#include <cstddef>

#include "program/mGeneral.h"

class QPlainTextEdit;

namespace vestrel {

/// Shows the messages of the running search, and keeps those of the last one.
class QuadMessagesWindow : public QDialog {
 public:
    explicit QuadMessagesWindow(const ProgramState& state);

    /// Call when there may be more messages, or those of another search.
    void MessagesChanged();

 protected:
    void showEvent(QShowEvent* event) override;

 private:
    const ProgramState& state_;
    QPlainTextEdit* list_;
    std::size_t shown_ = 0;  ///< messages in the list
};

}  // namespace vestrel
