// Which of the application's classes stand behind the main layout.
#pragma once

#include "app_shell/ports/application.h"

namespace qm5 {

MainStoryboard mainStoryboard();

}  // namespace qm5
