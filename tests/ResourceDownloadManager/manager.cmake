halvex_test(HalvexManagerTests MAIN QtTestMain LABEL unit SOURCES
  DownloadRetrierStubTest.cpp
  DownloadRetrierTest.cpp
  OptimalThreadCountTest.cpp
  PostProcessorStubTest.cpp
  RemoteResourceEventHandlerCallbackTest.cpp
  ResourceDownloadManagerTest.cpp
  TaskQueueWatcherTest.cpp
  ValidatorStubTest.cpp
  "${PROJECT_SOURCE_DIR}/tests/support/ThreadStarts.cpp"
  "${PROJECT_SOURCE_DIR}/tests/support/TimedWaits.cpp")
