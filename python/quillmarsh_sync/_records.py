"""The plain records that operations return."""

from dataclasses import dataclass, field
from typing import List


@dataclass
class SyncResult:
    """Result of a sync operation."""

    features_downloaded: int = 0
    useful_signals_downloaded: int = 0
    bytes_downloaded: int = 0
    era_id: int = 0
    t_signal_is: int = 0
    t_strategy_is: int = 0
    n_instruments: int = 0
    n_features: int = 0
    n_useful_signals: int = 0
    n_found_strategies: int = 0
    pnl_column_count: int = 0
    vocabulary_downloaded: bool = False
    shuffle_seed_downloaded: bool = False


@dataclass
class VerifyResult:
    """Result of a verify operation."""

    valid: bool = True
    corrupted_files: List[str] = field(default_factory=list)
    missing_files: List[str] = field(default_factory=list)


@dataclass
class DownloadProgress:
    """Where one download batch stands, as a progress observer is told."""

    files_done: int = 0
    files_selected: int = 0
    bytes_done: int = 0
    bytes_selected: int = 0
