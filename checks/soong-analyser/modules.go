// The module types a zv-qel-sa build file may use: Debian's copy of the platform build system's
// primary builder (cmd/soong_build) is compiled together with this file, so that it knows them.
package main

import (
	_ "android/soong/cc"
	_ "android/soong/etc"
	_ "android/soong/genrule"
	_ "android/soong/phony"
)
