// Nothing: its target compiles the headers that the tests' targets share (tests/CMakeLists.txt).
