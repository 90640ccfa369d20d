"""The declarations for ctypes say what the C header says."""

import ctypes
import enum
import inspect
import re
from typing import Any, Dict, List, Tuple

import kelp_player
from conftest import ROOT
from kelp_player import _native

_TYPES = {
    "int": ctypes.c_int,
    "unsigned int": ctypes.c_uint,
    "size_t": ctypes.c_size_t,
    "int64_t": ctypes.c_int64,
    "uint16_t": ctypes.c_uint16,
    "float": ctypes.c_float,
    "double": ctypes.c_double,
    "char*": ctypes.c_char_p,
    "kelp_call": _native.call_type,
    "void": None,
}


def _header() -> str:
    text = (ROOT / "include/kelp_player/kelp_player_c.h").read_text()
    return re.sub(r"\s+", " ", re.sub(r"//.*|#.*", "", text))


def _parameters(text: str) -> List[str]:
    """What stands between commas, but for those of a callback's own parameters."""
    parts = re.split(r",(?![^()]*\))", text.strip())
    return [] if text.strip() in ("", "void") else [part.strip() for part in parts]


def _split(declaration: str) -> Tuple[str, str]:
    """The type and the name of a parameter, a field or a function."""
    callback = re.fullmatch(r"(.*)\(\*(\w+)\)\((.*)\)", declaration)
    if callback:
        kinds = ", ".join(_split(parameter)[0] for parameter in _parameters(callback[3]))
        return f"{callback[1].strip()} ({kinds})", callback[2]
    found = re.fullmatch(r"(.*?[ *])(\w+)((?:\[\d+\])?)", declaration)
    assert found, declaration
    kind = re.sub(r"\bconst\b|\bstruct\b", "", found[1])
    return re.sub(r"\s*(\*+)\s*", r"\1", " ".join(kind.split())) + found[3], found[2]


def _fits(kind: str, bound: Any) -> bool:
    """Whether a type for ctypes is right for one of the header."""
    array = re.fullmatch(r"(.*)\[(\d+)\]", kind)
    if array:
        return bound._length_ == int(array[2]) and _fits(array[1], bound._type_)
    if "(" in kind:
        result, parameters = re.fullmatch(r"(.*) \((.*)\)", kind).groups()  # type: ignore[union-attr]
        kinds = parameters.split(", ")
        return (
            _fits(result, bound._restype_)
            and len(kinds) == len(bound._argtypes_)
            and all(map(_fits, kinds, bound._argtypes_))
        )
    if kind == "char":
        return bound is ctypes.c_char
    if kind in _TYPES:
        return bound is _TYPES[kind]
    assert kind.endswith("*"), kind
    if bound in (ctypes.c_void_p, ctypes.c_char_p):
        return kind == "uint8_t*" or (bound is ctypes.c_void_p and not hasattr(_native, kind[:-1]))
    return bool(_fits(kind[:-1], bound._type_) if kind.endswith("**") or kind[:-1] in _TYPES else bound._type_.__name__ == kind[:-1])


def _functions() -> Dict[str, Tuple[str, List[str]]]:
    found = re.findall(r"KELP_C_API ([^;{]*?[ *])(kelp_\w+)\(((?:[^()]|\([^()]*\))*)\);", _header())
    return {
        name: (_split(kind + name)[0], [_split(parameter)[0] for parameter in _parameters(parameters)])
        for kind, name, parameters in found
    }


def test_functions_have_the_types_of_the_header() -> None:
    functions = _functions()
    assert len(functions) > 80
    for name, (result, parameters) in functions.items():
        bound = getattr(_native.lib, name)
        if bound.argtypes is None:
            continue
        assert _fits(result, bound.restype), f"{name} returns {result}"
        assert len(parameters) == len(bound.argtypes), name
        for number, (kind, argument) in enumerate(zip(parameters, bound.argtypes)):
            assert _fits(kind, argument), f"parameter {number} of {name} is {kind}"


def test_every_function_is_called() -> None:
    sources = "".join(path.read_text() for path in (ROOT / "python/kelp_player").glob("*.py"))
    missing = [name for name in _functions() if f"lib.{name}" not in sources]
    assert not missing


def test_structs_have_the_fields_of_the_header() -> None:
    structs = re.findall(r"typedef struct (kelp_\w+) \{(.*?)\} \1;", _header())
    assert len(structs) > 8
    for name, body in structs:
        fields = [_split(field.strip()) for field in body.split(";") if field.strip()]
        bound = getattr(_native, name)._fields_
        # What a later version adds stands at the end, and isn't missed.
        assert [field[1] for field in fields][: len(bound)] == [field[0] for field in bound], name
        for (kind, field), (_, argument) in zip(fields, bound):
            assert _fits(kind, argument), f"{name}.{field} is {kind}"


def test_enumerations_have_the_numbers_of_the_header() -> None:
    kinds = {
        "KELP_LOG_": kelp_player.LogLevel,
        "KELP_FAILURE_": kelp_player.FailureKind,
        "KELP_SYNC_MASTER_": kelp_player.SyncMaster,
        "KELP_HW_DECODE_": kelp_player.HwDecode,
        "KELP_INFO_": kelp_player.Info,
        "KELP_TRACK_KIND_": kelp_player.TrackKind,
        "KELP_SOUND_OUTPUT_": kelp_player.SoundOutput,
        "KELP_PIX_FMT_": kelp_player.PixFormat,
        "KELP_VIDEO_CODEC_": kelp_player.VideoCodec,
    }
    numbers = {name: int(number) for name, number in re.findall(r"(KELP_[A-Z0-9_]+) = (-?\d+)", _header())}
    for prefix, kind in kinds.items():
        assert issubclass(kind, enum.Enum)
        for name, member in kind.__members__.items():
            assert numbers[prefix + name] == member.value, prefix + name
    assert numbers["KELP_WINDOW_TYPE_QT_WINID"] == kelp_player.WindowType.NATIVE
    assert numbers["KELP_WINDOW_TYPE_SDL"] == kelp_player.WindowType.SDL


def test_everything_public_says_what_it_is() -> None:
    silent = []
    for name in kelp_player.__all__:
        public = getattr(kelp_player, name)
        if not inspect.getdoc(public):
            silent.append(name)
        for member, value in vars(public).items() if inspect.isclass(public) else ():
            if not member.startswith("_") and (inspect.isfunction(value) or isinstance(value, property)):
                if not inspect.getdoc(getattr(public, member)):
                    silent.append(f"{name}.{member}")
    assert silent == []
    assert kelp_player.__doc__


def test_the_package_has_the_version_of_the_library() -> None:
    project = (ROOT / "python/pyproject.toml").read_text()
    assert f'\nversion = "{kelp_player.__version__}"\n' in project
