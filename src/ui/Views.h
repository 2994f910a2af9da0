#pragma once

// The panel's screens, one file each.
#include "ui/CaptureSetupView.h"
#include "ui/HomeView.h"
#include "ui/ProgressView.h"
#include "ui/RootView.h"
