halvex_test(HalvexSchedulingTests MAIN TestMain LABEL unit SOURCES
  ActiveStateTest.cpp
  AggregateStateTest.cpp
  DeliveryLockTest.cpp
  RemoteResourceSchedulerTest.cpp
  ResourceBundleTest.cpp
  ResourceItemTest.cpp
  ../support/SchedulingFakes.h)

halvex_test(HalvexSchedulingStressTests MAIN TestMain LABEL stress SOURCES
  RemoteResourceSchedulerStressTest.cpp)
