// A host with snapshots has its handlers here. The stand-alone host takes none; the library exists so
// that the load order holds.
