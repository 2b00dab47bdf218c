// The help window of the parameters.
#pragma once

#include <QDialog>

namespace vestrel {

class HelpWindow : public QDialog {
 public:
    HelpWindow();
};

}  // namespace vestrel
