// A program of nothing but its precompiled headers, which the tests share.
