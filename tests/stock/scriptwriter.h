// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "course.h"
#include "script.h"

//! Random scripts; the same seed gives the same script.
namespace ScriptWriter {

// The plugin ends its connections at this time after the start.
constexpr int PluginEndMs = 1500;

// The distances that a planned course keeps, and those that a played course must have kept.
constexpr double PlannedSlackMs = 60;
constexpr double PlayedSlackMs = 25;

Script spaced(quint32 seed, Ending ending, const CourseNames &names);
Script hasty(quint32 seed, Ending ending);

} // namespace ScriptWriter
