#pragma once

// Asks the system to empty this process's working set; called before every idle wait.
void TrimWorkingSet();
