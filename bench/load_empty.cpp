// The least library that can be opened.

extern "C" void nothing();
extern "C" void nothing() {}
