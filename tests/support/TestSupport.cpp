// Unit-test support on the plug-in's internals (see FakeHam.h).
