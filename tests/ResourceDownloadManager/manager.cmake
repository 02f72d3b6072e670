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

# A program of its own, because it counts all that is allocated in it. The sanitizers have their own
# operator new.
if(NOT HALVEX_SANITIZE)
  halvex_test(HalvexAllocationTests MAIN TestMain LABEL unit SOURCES
    ActiveStateAllocationTest.cpp)
endif()
