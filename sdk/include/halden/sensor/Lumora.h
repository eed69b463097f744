// The camera library libLumora: everything a program needs, in one include.
#pragma once

#include "Log.h"
#include "LumoraCalibration.h"
#include "LumoraCamera.h"
#include "LumoraDataType.h"
#include "LumoraFrame.h"
#include "LumoraProperty.h"
#include "LumoraResult.h"
#include "LumoraSink.h"
#include "LumoraSource.h"
#include "LumoraVersion.h"
#include "Timer.h"
