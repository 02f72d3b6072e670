halvex_test(HalvexTaskTests MAIN QtTestMain LABEL unit SOURCES
  IRemoteResourceTest.cpp
  ResourceDescriptorTest.cpp
  TaskQueueTest.cpp
  TaskQueueImmediateTest.cpp
  TaskQueueQtTest.cpp
  BlockingExecutorTest.cpp
  ParallelExecutorTest.cpp
  EventTracerTest.cpp
  EventTracerStubTest.cpp
  "${PROJECT_SOURCE_DIR}/tests/support/HeldBackWait.cpp"
  "${PROJECT_SOURCE_DIR}/tests/support/ThreadStarts.cpp")

halvex_test(HalvexTaskStressTests MAIN QtTestMain LABEL stress SOURCES
  ParallelExecutorStressTest.cpp
  TaskQueueStressTest.cpp
  "${PROJECT_SOURCE_DIR}/tests/support/ThreadStarts.cpp")
