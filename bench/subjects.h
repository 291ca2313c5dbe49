#pragma once

/// What can be measured, each in a file of its own: the plug-in's side and its bare counterpart. All print
/// what they found, and throw std::exception if there is nothing to be found.
namespace bench {

void MeasureTracing();
void MeasureControlHandler();
/// Needs the service to be installed, and the station manager to be registered with the list of "stationmgr
/// init".
void MeasurePlugEvents();
/// Handles the adapter's plug events instead of the service, until it is told to stop (bare_process.h).
void RunBareStation();
/// Needs the Fennlink U3's driver to be installed.
void MeasureDriverMessages();
void MeasureForeignRecords();
/// How costs grow. All three need what MeasurePlugEvents needs, and leave the configuration as it was.
void MeasureTemplateGrowth();
void MeasureComponentGrowth();
/// The System log is empty afterwards.
void MeasureRecordGrowth();
/// Reads the System log beside the service, until it is told to stop (bare_process.h).
void RunBareReader();
void MeasureStartAndStop();
void MeasureMemoryDump();
void MeasureTraceDecoding();
/// How long each command of the operator's tool takes to answer. Needs the service to run, and may take long.
void MeasureAnswers();
/// Time and memory of the commands that read a recording, of one of a million messages.
void MeasureLongRecording();
/// One init in a process of its own; prints one line: its time, the bare one's, the kilobytes it adds.
void MeasureInitOnce();
/// Reads such lines from the standard input and prints what comes of them.
void SummariseInits();

}  // namespace bench
