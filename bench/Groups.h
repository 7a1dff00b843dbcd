// The groups of figures. Each runs in a process of its own: the log's level is read once per process.
#pragma once

namespace bench
{

void MeasureRuns();
void MeasureParser();
void MeasureLog();
// Runs in the simulated machine, with PrintFile in place of iscsiadm.
void MeasureLookUps();
void MeasureMachines();

} // namespace bench
