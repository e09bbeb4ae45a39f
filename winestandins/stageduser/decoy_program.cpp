// lumeradecoy.exe: the program behind every decoy of a staged boot (see decoys.h). Its version
// resource names it as a decoy, so a report that lists it shows "Decoy" however it names the
// app; started by mistake, it ends at once.
int main() { return 0; }
