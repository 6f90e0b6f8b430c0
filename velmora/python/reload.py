"""Brings new versions of modules into use. Runs inside the server, under the interpreter lock."""
import ast
import os
import sys
import traceback

_directories = []
_stamps = {}  # of each module's file when it was loaded or last tried: name -> (module, stamp)
_failed = set()  # names whose newest version does not import
_folders = {}  # the directories' stamps when that was found
_places = {}  # each __file__ and where it is below the directories, or None
_kept = []  # Python 2 empties a module that nobody holds, though its functions may be running
_working = False


def below(directories):
    _directories[:] = [os.path.join(os.path.abspath(directory), "") for directory in directories]
    _places.clear()
    note()


def _stamp(path):
    try:
        status = os.stat(path)
    except OSError:
        return None  # being replaced, or gone: what is loaded stays
    return (getattr(status, "st_mtime_ns", status.st_mtime), status.st_size, status.st_ino)


def _file_below(module):
    path = getattr(module, "__file__", None)
    if not isinstance(path, str):
        return None
    if path not in _places:
        place = os.path.abspath(path)
        packaged = "/site-packages/" in place or "/dist-packages/" in place
        _places[path] = place if place.startswith(tuple(_directories)) and not packaged else None
    return _places[path]


def _ours():
    """Names and sources of the modules that may be loaded anew; not those of packages that hold compiled ones."""
    found, compiled = {}, set()
    for name, module in list(sys.modules.items()):
        path = _file_below(module)
        if path is None:
            continue
        if path.endswith((".pyc", ".pyo")):
            path = path[:-1]
        if path.endswith(".py"):
            found[name] = path
        else:
            compiled.add(name.split(".")[0])
    return dict((name, path) for name, path in found.items() if name.split(".")[0] not in compiled)


def note():
    """Remembers the files of modules that were loaded since the last time."""
    for name, path in _ours().items():
        module = sys.modules[name]
        if name not in _stamps or _stamps[name][0] is not module:
            _stamps[name] = (module, _stamp(path))


def _folder_stamps():
    folders = set(_directories)
    folders.update(os.path.dirname(path) for path in _ours().values())
    return dict((folder, _stamp(folder)) for folder in folders)


def _changed(ours):
    changed = set()
    for name, path in ours.items():
        now = _stamp(path)
        if now is not None and name in _stamps and _stamps[name][1] != now:
            changed.add(name)
    return changed


def _imports(name, path):
    """Names of what a module may import, and of the packages around it."""
    names = set(name.rsplit(".", parts)[0] for parts in range(1, name.count(".") + 1))
    package = name if os.path.basename(path) == "__init__.py" else name.rpartition(".")[0]
    try:
        with open(path, "rb") as source:
            tree = ast.parse(source.read())
    except (IOError, OSError, SyntaxError, ValueError, TypeError):
        return names
    for node in ast.walk(tree):
        if isinstance(node, ast.Import):
            bases = [alias.name for alias in node.names]
        elif isinstance(node, ast.ImportFrom):
            base = node.module or ""
            if node.level:
                around = package.split(".")
                around = around[:len(around) - node.level + 1]
                base = ".".join(around + ([base] if base else []))
            bases = [base] + [base + "." + alias.name for alias in node.names]
        else:
            continue
        for base in bases:
            names.add(base)
            names.add(package + "." + base)  # as Python 2 has it
            names.update(base.rsplit(".", parts)[0] for parts in range(1, base.count(".") + 1))
    return names


def _groups(changed, ours):
    """What has changed with all that imports it, in groups that have nothing to do with each other."""
    imports = dict((name, _imports(name, path) & set(ours)) for name, path in ours.items())
    affected = set(changed)
    size = 0
    while size != len(affected):
        size = len(affected)
        affected.update(name for name in ours if imports[name] & affected)
    groups = []
    for name in affected:
        group = set([name])
        for other in [g for g in groups if any(imports[name] & set([o]) or name in imports[o] for o in g)]:
            group |= other
            groups.remove(other)
        groups.append(group)
    return sorted(sorted(group) for group in groups)


def _forget_bytecode(path):
    """It is told from the source by whole seconds and the size only."""
    if sys.version_info[0] > 2:
        import importlib.util
        cached = importlib.util.cache_from_source(path)
    else:
        cached = path + "c"
    try:
        os.remove(cached)
    except OSError:
        pass


def _load(names):
    if sys.version_info[0] > 2:
        import importlib
        importlib.invalidate_caches()
    for name in names:
        __import__(name)


def _swap(names):
    """All of them in their new versions, or an exception and all as they were."""
    before = dict(sys.modules)
    attributes = []
    for name in names:
        parent, _, last = name.rpartition(".")
        if parent in before and hasattr(before[parent], last):
            attributes.append((before[parent], last, getattr(before[parent], last)))
        del sys.modules[name]
    try:
        _load(names)
    except BaseException:
        for name in _ours():
            if name not in before:
                del sys.modules[name]
        for name in names:
            sys.modules[name] = before[name]
        for parent, last, module in attributes:
            setattr(parent, last, module)
        raise
    if sys.version_info[0] < 3:
        _kept.extend(before[name] for name in names)


def _attempt(names, ours):
    """None, or the traceback."""
    for name in names:
        _forget_bytecode(ours[name])
    stamps = dict((name, _stamp(ours[name])) for name in names)
    failure = None
    try:
        _swap(names)
        _failed.difference_update(names)
    except BaseException:
        failure = traceback.format_exc().rstrip("\n")
        _failed.update(names)
    for name in names:
        _stamps[name] = (sys.modules[name], stamps[name])
    return failure


def reload(again):
    """Loads what has changed; with `again` also what has failed before. A list of (name, None) and (names that hang
    together, traceback).
    """
    global _working
    if _working:  # a module asks for it while it is loaded
        return []
    ours = _ours()
    changed = _changed(ours)
    if _failed and (again or _folders != _folder_stamps()):  # what was missing may have come
        changed |= _failed & set(ours)
    if not changed:
        return []
    _working = True
    try:
        results = []
        for names in _groups(changed, ours):
            failure = _attempt(names, ours)
            results += [(", ".join(names), failure)] if failure else [(name, None) for name in names]
        note()
        _folders.clear()
        _folders.update(_folder_stamps())
        return results
    finally:
        _working = False
