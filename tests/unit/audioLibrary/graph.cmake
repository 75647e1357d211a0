# unit tests of the graph library
foreach(subject audioTrace audioTypes serviceTime audioPort audioBlock audioChain)
  player_unit_test(${subject}Test SOURCES ${subject}Test.cpp LINK audioGraph)
endforeach()
# alone in its program: it looks at what happens before main
player_unit_test(registryStartTest SOURCES registryStartTest.cpp LINK audioGraph)
