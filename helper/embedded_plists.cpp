// The two property lists the service carries inside its executable, as launchd and the
// service-management framework expect of a privileged helper: the bundle information
// (identifier, version, the code-signing requirements of the clients allowed to install it)
// and the launchd job (label and service name). On ELF they live in the sections
// ".info_plist" and ".launchd_plist", the counterparts of __TEXT,__info_plist and
// __TEXT,__launchd_plist. The bytes are Info.plist and Launchd.plist of this folder,
// unchanged and unterminated, so a reader takes the whole section as the list.
//
// Nothing in the program refers to them: the "R" flag keeps them when the link drops
// unreferenced sections.

asm(R"(
    .pushsection .info_plist, "aR", @progbits
    .incbin "Info.plist"
    .popsection
    .pushsection .launchd_plist, "aR", @progbits
    .incbin "Launchd.plist"
    .popsection
)");
