// libkeldaclient holds no code of its own. It exists for applications linked
// before the client was split into libkeldaclientcore and
// libkeldaclientwidgets: it depends on both, so that loading it loads every
// symbol those applications were linked against.
