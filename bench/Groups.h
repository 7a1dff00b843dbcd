// What is measured, in groups: one a process, since the log's level is read once.
#pragma once

namespace bench
{

void MeasureRuns();
void MeasureParser();
void MeasureLog();
// In the simulated machine, with PrintFile in the place of iscsiadm.
void MeasureLookUps();
void MeasureMachines();

} // namespace bench
