// test_pch.cpp - the precompiled header that the test programs share, so that GoogleTest and the
// standard library are parsed only once.
int main()
{
    return 0;
}
