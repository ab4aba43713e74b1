int zv_extra(void) { return 0; }
